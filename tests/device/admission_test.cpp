// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include "device_test.h"

namespace android::kus {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr char kSerial[] = "--vendor 1155 --product 22336 --serial";

class AdmissionTest : public DeviceTest {};

struct RuleCase {
    const char* mode;
    const char* rules;
    bool allowed;
    const char* reason;
};

// What else rules can say is tested with the queries.
TEST_F(AdmissionTest, RulesDecideOnAStick) {
    const RuleCase cases[] = {
        {"whitelist", "<vid vendorid=\"2385\"><pid>1</pid><pid>5734</pid></vid>", true,
         "Whitelisted: Match by VID_PID combination, VID : 2385 PID: 5734"},
        {"blacklist", "<class>USB_CLASS_MASS_STORAGE</class>", false,
         "Blacklisted: Match by ClassName, CLASS : USB_CLASS_MASS_STORAGE "},
    };
    for (const RuleCase& rule : cases) {
        SCOPED_TRACE(std::string(rule.mode) + " " + rule.rules);
        setRules(rule.mode, rule.rules);
        const Plugged stick("stick", kStick);
        const DeviceInfo decision = stick.decision();
        EXPECT_EQ(decision.status, rule.allowed);
        EXPECT_EQ(decision.reason, rule.reason);
        EXPECT_EQ(decision.category, 4);
        EXPECT_EQ(decision.categoryPath, "sdcard;");
        if (rule.allowed) {
            EXPECT_EQ(stick.interfaceState(0), "usb-storage 1");
            EXPECT_TRUE(eventually([] { return sticks().size() == 1; }));
        } else {
            EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }))
                << stick.interfaceState(0);
            EXPECT_TRUE(eventually([] { return sticks().empty(); }));
        }
    }
}

// The slowest part of a stick's life is the disk's discovery: it must not come back later either.
TEST_F(AdmissionTest, ARefusedStickStaysWithoutABlockDevice) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_TRUE(eventually([] { return sticks().empty(); }));
    EXPECT_FALSE(eventually([] { return !sticks().empty(); }, 3s));
    EXPECT_EQ(stick.interfaceState(0), " 0");
}

TEST_F(AdmissionTest, EveryInterfaceOfACompositeDeviceCounts) {
    setRules("whitelist",
             "<class>USB_CLASS_COMM</class><class>USB_CLASS_CDC_DATA</class>"
             "<class>USB_CLASS_MASS_STORAGE</class>");
    {
        const Plugged modem("modem", "--vendor 1155 --product 1 --serial --storage");
        const DeviceInfo decision = modem.decision();
        EXPECT_EQ(decision.reason,
                  "Whitelisted: Match by ClassName, CLASS : USB_CLASS_COMM USB_CLASS_CDC_DATA "
                  "USB_CLASS_MASS_STORAGE ");
        EXPECT_THAT(decision.interfaceClassList, ElementsAre(2, 10, 8));
        EXPECT_EQ(decision.category, 2 + 4);
        EXPECT_EQ(modem.interfaceState(2), "usb-storage 1");
    }
    setRules("whitelist", "<class>USB_CLASS_MASS_STORAGE</class>");
    const Plugged modem("modem", "--vendor 1155 --product 1 --serial --storage");
    EXPECT_EQ(modem.decision().reason, "No matching rule found to Whitelist the device");
    for (const int interface : {0, 1, 2}) {
        EXPECT_TRUE(eventually([&] { return modem.interfaceState(interface) == " 0"; }))
            << interface << ": " << modem.interfaceState(interface);
    }
}

TEST_F(AdmissionTest, InterfacesAreCategorisedByWhatTheKernelMakesOfThem) {
    {
        const Plugged serial("serial", kSerial);
        const DeviceInfo decision = serial.decision();
        EXPECT_EQ(decision.category, 2);
        EXPECT_THAT(android::base::Split(decision.categoryPath, ";"),
                    testing::UnorderedElementsAre("ttyACM0", "empty", ""));
    }
    const Plugged network("network", "--vendor 3034 --product 1 --network");
    const DeviceInfo decision = network.decision();
    EXPECT_EQ(decision.category, 1);
    EXPECT_THAT(android::base::Split(decision.categoryPath, ";"),
                testing::UnorderedElementsAre("usb0", "empty", ""));
}

TEST_F(AdmissionTest, ARefusedAdapterLosesItsNetworkAndSerialDevices) {
    setRules("whitelist", "<class>USB_CLASS_MASS_STORAGE</class>");
    const Plugged network("network", "--vendor 3034 --product 1 --network");
    const Plugged serial("serial", kSerial);
    EXPECT_EQ(network.decision().status, 0);
    EXPECT_EQ(serial.decision().status, 0);
    EXPECT_TRUE(eventually([] {
        return shell("ls -d /sys/class/net/usb0 /sys/class/tty/ttyACM0 2>/dev/null; true").empty();
    }));
}

TEST_F(AdmissionTest, AVendorHidIsDecidedByItsIds) {
    setRules("whitelist", "<vid vendorid=\"1678\"><pid>7</pid></vid>");
    const Plugged listed("listed", "--vendor 1678 --product 7 --vendor-hid");
    EXPECT_EQ(listed.decision().reason,
              "Whitelisted: Match by VID_PID combination, VID : 1678 PID: 7");
    EXPECT_EQ(listed.decision().category, 8);
    const Plugged other("other", "--vendor 1678 --product 8 --vendor-hid");
    EXPECT_EQ(other.decision().reason, "No matching rule found to Whitelist the device");
    EXPECT_TRUE(eventually([&] { return other.interfaceState(0) == " 0"; }));
}

TEST_F(AdmissionTest, APrinterIsDecidedByItsClassAndAVendorsOwnClassByItsIds) {
    setRules("whitelist",
             "<class>USB_CLASS_PRINTER</class><vid vendorid=\"1678\"><pid>7</pid></vid>");
    const Plugged printer("printer", "--vendor 1008 --product 1 --printer");
    EXPECT_EQ(printer.decision().reason,
              "Whitelisted: Match by ClassName, CLASS : USB_CLASS_PRINTER ");
    EXPECT_EQ(printer.interfaceState(0), "usblp 1");
    const Plugged listed("listed", "--vendor 1678 --product 7 --vendor-class");
    EXPECT_EQ(listed.decision().status, 1);
    const Plugged both("both", "--vendor 1678 --product 8 --vendor-class --printer");
    EXPECT_EQ(both.decision().status, 1) << "the restricted class is passed over";
    const Plugged other("other", "--vendor 1678 --product 9 --vendor-class");
    EXPECT_THAT(other.decision().interfaceClassList, ElementsAre(255));
    EXPECT_EQ(other.decision().reason, "No matching rule found to Whitelist the device");
    EXPECT_TRUE(eventually([&] { return other.interfaceState(0) == " 0"; }));
}

TEST_F(AdmissionTest, AKeyboardIsLeftToTheInputPath) {
    setRules("whitelist", "<class>AINPUT_SOURCE_KEYBOARD</class>");
    const Plugged keyboard("keys", "--vendor 1133 --product 49948 --keyboard");
    const Plugged mouse("mouse", "--vendor 1133 --product 49271 --mouse");
    DeviceInfo keys, pointer;
    EXPECT_TRUE(eventually([&] {
        keys = recorded("Virtual keys");
        pointer = recorded("Virtual mouse");
        return keys.deviceType == 1 && pointer.deviceType == 1;
    }));
    EXPECT_EQ(keys.reason, "Whitelisted: Match by ClassName, CLASS : AINPUT_SOURCE_KEYBOARD ");
    EXPECT_EQ(pointer.reason, "No matching rule found to Whitelist the device");
    EXPECT_EQ(recorded(keyboard.id()).deviceId, 0) << "recorded as a USB device too";
    // Refused in the input path: the kernel's driver stays, the platform silences the device.
    EXPECT_EQ(mouse.interfaceState(0), "usbhid 1");
    EXPECT_TRUE(eventually([] {
        return shell(
                   "cat $(dirname $(grep -l 'Virtual mouse' /sys/class/input/input*/name))"
                   "/inhibited") == "1";
    }));
}

TEST_F(AdmissionTest, AReattachedDeviceIsDecidedUnderItsNewId) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Plugged stick("stick", kStick);
    const int before = stick.decision().deviceId;
    stick.replug();
    const int after = stick.decision().deviceId;
    EXPECT_NE(after, before);
    EXPECT_EQ(after / 1000, before / 1000);
    EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }));
    EXPECT_TRUE(eventually([&] { return recorded(before).deviceId == 0; }))
        << "the old record stays";
}

// As any program can make it that has the device node open.
TEST_F(AdmissionTest, ARefusedDeviceThatIsConfiguredAnewIsRefusedAnew) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }));
    shell("cd /sys/bus/usb/devices/" + stick.entry() +
          "; echo 0 >bConfigurationValue; echo 1 >bConfigurationValue");
    EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }));
}

// The mouse behind the hub is the machine's own: it is there from the start.
TEST_F(AdmissionTest, ADeviceBehindAHubIsDecidedByItsOwnId) {
    EXPECT_EQ(contentOf("/sys/bus/usb/devices/1-1/bDeviceClass"), "09");
    const std::string entry = "/sys/bus/usb/devices/1-1.2";
    DeviceInfo mouse;
    mouse.deviceName = "behind the hub";
    mouse.deviceId = 1000 + stoi(contentOf(entry + "/devnum"));
    mouse.interfaceClassList = {8};
    mouse.vendorId = 1;
    setRules("whitelist", "<vid vendorid=\"1\"/>");
    bool allowed = false;
    service()->isDeviceAllowed(mouse, &allowed);
    EXPECT_TRUE(allowed);
    // One interface, an input device's: its category is 0.
    EXPECT_EQ(recorded(mouse.deviceId).categoryPath, "empty;");
    mouse.vendorId = 2;
    service()->isDeviceAllowed(mouse, &allowed);
    EXPECT_FALSE(allowed);
    EXPECT_EQ(contentOf(entry + ":1.0/authorized"), "0");
    // Put back as it was: there is no way to unplug it.
    shell("echo 1 >" + entry + ":1.0/authorized; echo 1-1.2:1.0 >/sys/bus/usb/drivers_probe");
    service()->updateDeviceList(mouse, 0);
    EXPECT_EQ(recorded(mouse.deviceId).deviceId, 0);
}

}  // namespace
}  // namespace android::kus
