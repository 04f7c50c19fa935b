// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include "device_test.h"

namespace android::kus {
namespace {

constexpr char kIds[] = "--vendor 1678 --product 7 ";
constexpr char kNoMatch[] = "No matching rule found to Whitelist the device";

constexpr char kListMade[] =
    "ls -d /sys/block/sd* /sys/class/net/usb0 /sys/class/tty/ttyACM0 2>/dev/null; true";

class AdmissionTest : public DeviceTest {};

const struct {
    std::string functions;
    std::string match;
    std::vector<int> classes;
    int category;
    Texts paths;
    Texts states;
} kKinds[] = {
    {"--storage",
     "ClassName, CLASS : USB_CLASS_MASS_STORAGE ",
     {8},
     4,
     {"sdcard"},
     {"usb-storage 1"}},
    {"--network",
     "ClassName, CLASS : USB_CLASS_COMM USB_CLASS_CDC_DATA ",
     {2, 10},
     1,
     {"usb0", "empty"},
     {"cdc_ether 1", "cdc_ether 1"}},
    {"--serial --storage",
     "ClassName, CLASS : USB_CLASS_COMM USB_CLASS_CDC_DATA USB_CLASS_MASS_STORAGE ",
     {2, 10, 8},
     2 + 4,
     {"ttyACM0", "empty", "sdcard"},
     {"cdc_acm 1", "cdc_acm 1", "usb-storage 1"}},
    {"--printer", "ClassName, CLASS : USB_CLASS_PRINTER ", {7}, 0, {"empty"}, {"usblp 1"}},
    {"--vendor-hid", "VID_PID combination, VID : 1678 PID: 7", {3}, 8, {"empty"}, {"usbhid 1"}},
    {"--vendor-class", "VID_PID combination, VID : 1678 PID: 7", {255}, 0, {"empty"}, {" 1"}},
};

// What else rules can say is tested with the queries.
TEST_F(AdmissionTest, AllowedDevicesWorkAndAreCategorisedByWhatTheKernelMakesOfThem) {
    setRules("whitelist",
             "<class>USB_CLASS_MASS_STORAGE</class><class>USB_CLASS_COMM</class>"
             "<class>USB_CLASS_CDC_DATA</class><class>USB_CLASS_PRINTER</class>"
             "<vid vendorid=\"1678\"><pid>7</pid></vid>");
    for (const auto& kind : kKinds) {
        SCOPED_TRACE(kind.functions);
        const Plugged device("device", kIds + kind.functions);
        const DeviceInfo decision = device.decision();
        EXPECT_EQ(decision.reason, "Whitelisted: Match by " + kind.match);
        EXPECT_EQ(decision.status, 1);
        EXPECT_THAT(decision.interfaceClassList, ElementsAreArray(kind.classes));
        EXPECT_EQ(decision.category, kind.category);
        Texts paths = kind.paths;
        // Each is followed by a semicolon.
        paths.push_back("");
        EXPECT_THAT(base::Split(decision.categoryPath, ";"), UnorderedElementsAreArray(paths));
        EXPECT_THAT(statesOf(device.entry()), ElementsAreArray(kind.states));
    }
}

TEST_F(AdmissionTest, RefusedDevicesLoseEveryDriverAndWhatTheyHaveMade) {
    setRules("whitelist", "<vid vendorid=\"1678\"><pid>8</pid></vid>");
    for (const auto& kind : kKinds) {
        SCOPED_TRACE(kind.functions);
        const Plugged device("device", kIds + kind.functions);
        EXPECT_EQ(device.decision().reason, kNoMatch);
        EXPECT_EQ(device.decision().status, 0);
        device.expectState(" 0");
        EXPECT_EQ(statesOf(device.entry()).size(), kind.states.size());
        EXPECT_TRUE(eventually([] { return shell(kListMade).empty(); }));
    }
    // The slowest part of a stick's life is the disk's discovery: it must not come back later.
    const Plugged stick("stick", kStick);
    stick.expectState(" 0");
    EXPECT_FALSE(eventually([] { return sticks() > 0; }, 3s));
}

TEST_F(AdmissionTest, AKeyboardIsLeftToTheInputPath) {
    setRules("whitelist", "<class>AINPUT_SOURCE_KEYBOARD</class>");
    const Plugged keyboard("keys", kKeyboard);
    const Plugged mouse("mouse", "--vendor 1133 --product 49271 --mouse");
    EXPECT_TRUE(eventually([] {
        return recorded("Virtual keys").deviceType == 1 &&
               recorded("Virtual mouse").deviceType == 1;
    }));
    EXPECT_EQ(recorded("Virtual keys").reason,
              "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD ");
    EXPECT_EQ(recorded("Virtual mouse").reason, kNoMatch);
    EXPECT_EQ(recorded(keyboard.id()).deviceId, 0) << "recorded as a USB device too";
    // Refused in the input path: the kernel's driver stays, the platform silences the device.
    mouse.expectState("usbhid 1");
    const std::string silenced =
        "cat $(dirname $(grep -l 'Virtual mouse' /sys/class/input/input*/name))/inhibited";
    EXPECT_TRUE(eventually([&] { return shell(silenced) == "1"; }));
}

TEST_F(AdmissionTest, AReattachedDeviceIsDecidedUnderItsNewIdAndAReconfiguredOneAnew) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Plugged stick("stick", kStick);
    const int before = stick.decision().deviceId;
    stick.replug();
    const int after = stick.decision().deviceId;
    EXPECT_NE(after, before);
    EXPECT_EQ(after / 1000, before / 1000);
    stick.expectState(" 0");
    EXPECT_TRUE(eventually([&] { return recorded(before).deviceId == 0; }))
        << "the old record stays";
    // As any program can do it that has the device node open.
    shell("cd /sys/bus/usb/devices/" + stick.entry() +
          "; echo 0 >bConfigurationValue; echo 1 >bConfigurationValue");
    stick.expectState(" 0");
}

}  // namespace
}  // namespace android::kus
