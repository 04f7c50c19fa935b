// SPDX-License-Identifier: Apache-2.0
#include <signal.h>

#include <sstream>

#include "kus_test.h"

namespace android::kus {
namespace {

// What is made of a file that can be read is a golden text.
class RulesFile : public KusTest {};

TEST_F(RulesFile, MissingOnesAreReportedInTheLibrarysWords) {
    Util::createMapFromConfig("/data/missing.xml");
    EXPECT_FALSE(xml_parse_status);
    EXPECT_THAT(readFile(statusFilePath), HasSubstr("filename=/data/missing.xml"));
}

// The crash handler turns it into a restore of the last good rules.
TEST_F(RulesFile, NumberBeyond32BitsAborts) {
    for (const std::string vendor :
         {"<vid vendorid='99999999999'/>", "<vid vendorid='1'><pid>2147483648</pid></vid>"}) {
        EXPECT_EXIT(loadRules("<usbconfig mode='whitelist'>" + vendor + "</usbconfig>"),
                    KilledBySignal(SIGABRT), "");
    }
}

TEST_F(RulesFile, EveryClassHasOneNameInBothDirections) {
    std::istringstream names(R"(
        0x0 USB_CLASS_PER_INTERFACE  0x1 USB_CLASS_AUDIO  0x2 USB_CLASS_COMM  0x3 USB_CLASS_HID
        0x5 USB_CLASS_PHYSICA  0x6 USB_CLASS_STILL_IMAGE  0x7 USB_CLASS_PRINTER
        0x8 USB_CLASS_MASS_STORAGE  0x9 USB_CLASS_HUB  0xA USB_CLASS_CDC_DATA  0xB USB_CLASS_CSCID
        0xD USB_CLASS_CONTENT_SEC  0xE USB_CLASS_VIDEO  0xE0 USB_CLASS_WIRELESS_CONTROLLER
        0xEF USB_CLASS_MISC  0xFE USB_CLASS_APP_SPEC  0xFF USB_CLASS_VENDOR_SPEC
        0x100 AINPUT_SOURCE_KEYBOARD  0x200 AINPUT_SOURCE_DPAD  0x400 AINPUT_SOURCE_GAMEPAD
        0x1000 AINPUT_SOURCE_TOUCHSCREEN  0x2000 AINPUT_SOURCE_MOUSE  0x4000 AINPUT_SOURCE_STYLUS
        0x10000 AINPUT_SOURCE_TRACKBALL  0x20000 AINPUT_SOURCE_MOUSE_RELATIVE
        0x100000 AINPUT_SOURCE_TOUCHPAD  0x200000 AINPUT_SOURCE_TOUCH_NAVIGATION
        0x400000 AINPUT_SOURCE_ROTARY_ENCODER  0x1000000 AINPUT_SOURCE_JOYSTICK)");
    uint32_t code;
    std::string name;
    size_t count = 0;
    for (; names >> std::hex >> code >> name; ++count) {
        EXPECT_EQ(Util::convert(name), code);
        EXPECT_EQ(Util::getClassName(code), name);
    }
    EXPECT_EQ(count, std::size(classNameTable));
    for (const char* unknown : {"", "USB_CLASS_PHYSICAL", "usb_class_audio", "USB_CLASS_AUDIO "}) {
        EXPECT_EQ(Util::convert(unknown), 0xFFFFFFFF) << unknown;
    }
    for (const int unnamed : {-1, 4, 0x300}) EXPECT_EQ(Util::getClassName(unnamed), " ");
    EXPECT_THAT(restrictedClasses, ElementsAre(0x00, 0x03, 0x09, 0xEF, 0xFE, 0xFF));
    EXPECT_THAT(takeLog(), IsEmpty());
}

}  // namespace
}  // namespace android::kus
