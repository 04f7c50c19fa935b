// SPDX-License-Identifier: Apache-2.0
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {

// "USB_CLASS_PHYSICA" has no final L, on purpose: the spelling is part of the file's format.
// Input sources stand without the class byte that AINPUT_SOURCE_* constants carry (a keyboard is
// 0x100, not 0x101), because checkMultiClass strips it before it looks them up.
const ClassName classNameTable[29] = {
    {0x00, "USB_CLASS_PER_INTERFACE"},
    {0x01, "USB_CLASS_AUDIO"},
    {0x02, "USB_CLASS_COMM"},
    {0x03, "USB_CLASS_HID"},
    {0x05, "USB_CLASS_PHYSICA"},
    {0x06, "USB_CLASS_STILL_IMAGE"},
    {0x07, "USB_CLASS_PRINTER"},
    {0x08, "USB_CLASS_MASS_STORAGE"},
    {0x09, "USB_CLASS_HUB"},
    {0x0A, "USB_CLASS_CDC_DATA"},
    {0x0B, "USB_CLASS_CSCID"},
    {0x0D, "USB_CLASS_CONTENT_SEC"},
    {0x0E, "USB_CLASS_VIDEO"},
    {0xE0, "USB_CLASS_WIRELESS_CONTROLLER"},
    {0xEF, "USB_CLASS_MISC"},
    {0xFE, "USB_CLASS_APP_SPEC"},
    {0xFF, "USB_CLASS_VENDOR_SPEC"},
    {0x100, "AINPUT_SOURCE_KEYBOARD"},
    {0x200, "AINPUT_SOURCE_DPAD"},
    {0x400, "AINPUT_SOURCE_GAMEPAD"},
    {0x1000, "AINPUT_SOURCE_TOUCHSCREEN"},
    {0x2000, "AINPUT_SOURCE_MOUSE"},
    {0x4000, "AINPUT_SOURCE_STYLUS"},
    {0x10000, "AINPUT_SOURCE_TRACKBALL"},
    {0x20000, "AINPUT_SOURCE_MOUSE_RELATIVE"},
    {0x100000, "AINPUT_SOURCE_TOUCHPAD"},
    {0x200000, "AINPUT_SOURCE_TOUCH_NAVIGATION"},
    {0x400000, "AINPUT_SOURCE_ROTARY_ENCODER"},
    {0x1000000, "AINPUT_SOURCE_JOYSTICK"},
};

uint32_t Util::convert(const std::string& name) {
    for (const ClassName& row : classNameTable) {
        if (name == row.name) return row.code;
    }
    return NO_CLASS;
}

std::string Util::getClassName(int code) {
    for (const ClassName& row : classNameTable) {
        if (code == row.code) return row.name;
    }
    return " ";
}

}  // namespace android::kus
