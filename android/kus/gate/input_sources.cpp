// SPDX-License-Identifier: Apache-2.0
#include "gate/input_sources.h"

namespace android::kus {

namespace {

bool hasKeyBetween(const InputCapabilities& capabilities, size_t first, size_t end) {
    for (size_t key = first; key < end; ++key) {
        if (capabilities.keys[key]) return true;
    }
    return false;
}

bool hasDpad(const InputCapabilities& capabilities) {
    for (size_t key : {KEY_UP, KEY_DOWN, KEY_LEFT, KEY_RIGHT, KEY_SELECT}) {
        if (!capabilities.keys[key]) return false;
    }
    return true;
}

}  // namespace

uint32_t inputSources(const InputCapabilities& capabilities) {
    const auto& [keys, relative, absolute, properties] = capabilities;
    const bool keyboardKeys =
        hasKeyBetween(capabilities, 0, BTN_MISC) || hasKeyBetween(capabilities, BTN_WHEEL, KEY_CNT);
    const bool gamepadButtons = hasKeyBetween(capabilities, BTN_MISC, BTN_MOUSE) ||
                                hasKeyBetween(capabilities, BTN_JOYSTICK, BTN_DIGI);
    const bool singleTouch = keys[BTN_TOUCH] && absolute[ABS_X] && absolute[ABS_Y];
    const bool multiTouch = absolute[ABS_MT_POSITION_X] && absolute[ABS_MT_POSITION_Y] &&
                            (keys[BTN_TOUCH] || !gamepadButtons);

    uint32_t sources = 0;
    if (keyboardKeys || gamepadButtons) sources |= kKeyboardSource;
    if (hasDpad(capabilities)) sources |= kDpadSource;
    if (gamepadButtons) sources |= kGamepadSource;
    if (keys[BTN_MOUSE] && relative[REL_X] && relative[REL_Y]) sources |= kMouseSource;
    if (singleTouch || multiTouch) {
        sources |= properties[INPUT_PROP_DIRECT] ? kTouchscreenSource : kTouchpadSource;
        if (keys[BTN_TOOL_PEN]) sources |= kStylusSource;
    } else if (gamepadButtons && absolute[ABS_X] && absolute[ABS_Y]) {
        sources |= kJoystickSource;
    }
    return sources;
}

}  // namespace android::kus
