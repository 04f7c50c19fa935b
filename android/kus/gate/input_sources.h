// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/input.h>
#include <stdint.h>

#include <bitset>

namespace android::kus {

/** The bits of a device's input sources, as android/input.h numbers them. */
enum InputSource : uint32_t {
    kKeyboardSource = 0x101,
    kDpadSource = 0x201,
    kGamepadSource = 0x401,
    kTouchscreenSource = 0x1002,
    kMouseSource = 0x2002,
    kStylusSource = 0x4002,
    kTouchpadSource = 0x100008,
    kJoystickSource = 0x1000010,
};

/** What a device can send, as evdev describes it. */
struct InputCapabilities {
    std::bitset<KEY_CNT> keys;
    std::bitset<REL_CNT> relative;
    std::bitset<ABS_CNT> absolute;
    std::bitset<INPUT_PROP_CNT> properties;
};

/**
 * The device's InputSource bits, found as the platform's input reader finds them (EventHub's device
 * classes and the sources of their input mappers), for devices without a configuration file.
 */
uint32_t inputSources(const InputCapabilities& capabilities);

}  // namespace android::kus
