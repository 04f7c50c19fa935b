// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "service_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Vendors = std::multimap<int32_t, int32_t>;

constexpr char kInterface[] = "1-1:1.0";
constexpr char kHidDirectory[] = "0003:046D:C31C.0001";

class Admission : public ServiceTest {
  protected:
    void attach(const std::vector<std::string>& directories = {}) {
        for (const char* path : {"/sys/bus", "/sys/devices"}) std::filesystem::remove_all(path);
        addDevice("1-1", 2);
        addInterface(kInterface, 3, directories);
    }

    bool isAuthorized() { return readFile(sysfsPath(kInterface, "authorized")) == "1\n"; }
};

constexpr int kId = 1002;

struct Case {
    std::vector<int32_t> classes;
    Vendors vendors;
    DeviceInfo device;
    /** Empty when no rule matches. */
    std::string match;
};

const std::string kByClass = "Match by ClassName, CLASS : ";

const Case kCases[] = {
    {{8}, {}, usbDevice(kId, {8}), kByClass + "USB_CLASS_MASS_STORAGE "},
    {{8}, {}, usbDevice(kId, {8, 3, 8}), kByClass + "USB_CLASS_MASS_STORAGE "},
    {{2, 10}, {}, usbDevice(kId, {10, 2}), kByClass + "USB_CLASS_CDC_DATA USB_CLASS_COMM "},
    {{}, {}, usbDevice(kId, {8}), ""},
    // One class that is not listed breaks the match of the others.
    {{8}, {}, usbDevice(kId, {8, 6}), ""},
    {{8}, {}, usbDevice(kId, {6, 8}), ""},
    // Restricted classes are passed over, and alone are no match.
    {{8}, {}, usbDevice(kId, {255, 8}), kByClass + "USB_CLASS_MASS_STORAGE "},
    {{8}, {}, usbDevice(kId, {0, 9, 239, 254, 255}), ""},
    // A name is left out where the reason holds it already, as another name's part too.
    {{0x2000, 0x20000},
     {},
     usbDevice(kId, {0x20000, 0x2000}),
     kByClass + "AINPUT_SOURCE_MOUSE_RELATIVE "},
    {{77}, {}, usbDevice(kId, {77}), kByClass},

    // Vendors are asked only where the classes gave no verdict.
    {{8}, {{100, -1}}, usbDevice(kId, {8}, 100), kByClass + "USB_CLASS_MASS_STORAGE "},
    {{8}, {{100, -1}}, usbDevice(kId, {8, 6}, 100), "Match by VID, VID : 100"},
    {{}, {{100, -1}}, usbDevice(kId, {8}, 101), ""},
    {{}, {{100, 5}, {200, -1}}, usbDevice(kId, {8}, 100, 5), "Match by VID, VID : 100"},
    {{},
     {{100, 5}, {100, 7}},
     usbDevice(kId, {255}, 100, 7),
     "Match by VID_PID combination, VID : 100 PID: 7"},
    {{}, {{100, 5}}, usbDevice(kId, {255}, 100, 6), ""},

    {{0x100}, {}, inputDevice(kId, 0x101), kByClass + "AINPUT_SOURCE_KEYBOARD "},
    {{0x2000, 0x20000},
     {},
     inputDevice(kId, 0x22002),
     kByClass + "AINPUT_SOURCE_MOUSE AINPUT_SOURCE_MOUSE_RELATIVE "},
    // Every source of the device must be listed.
    {{0x100}, {}, inputDevice(kId, 0x2102), ""},
    {{0x100}, {{100, -1}}, inputDevice(kId, 0x2102, 100), "Match by VID, VID : 100"},
    {{3}, {}, inputDevice(kId, 3), ""},
    {{3},
     {{100, 5}},
     inputDevice(kId, 3, 100, 5),
     "Match by VID_PID combination, VID : 100 PID: 5"}};

TEST_F(Admission, MatchAllowsInWhitelistModeAndBlocksInBlacklistMode) {
    for (const Case& c : kCases) {
        const bool matched = !c.match.empty();
        const std::string whitelisted =
            matched ? "Whitelisted: " + c.match : "No matching rule found to Whitelist the device";
        const std::string blacklisted =
            matched ? "Blacklisted: " + c.match : "No matching rule found to Blacklist the device";
        const struct {
            const char* mode;
            bool allowed;
            std::string reason;
        } modes[] = {{"default", true, "Enabled by default rule"},
                     {"whitelist", matched, whitelisted},
                     {"blacklist", !matched, blacklisted},
                     // What a rejected file can leave behind.
                     {"Blacklist", matched, whitelisted},
                     {"", matched, whitelisted}};
        for (const auto& m : modes) {
            SCOPED_TRACE(std::string(m.mode) + ", " + text(c.device));
            attach();
            configMode = m.mode;
            classList = c.classes;
            setVendors(c.vendors);
            EXPECT_EQ(isAllowed(c.device), m.allowed);
            const bool isInput = c.device.deviceType == 1;
            EXPECT_EQ(isAuthorized(), m.allowed || isInput);
            ASSERT_EQ(mInputDeviceInfoList.size(), isInput ? 1u : 0u);
            ASSERT_EQ(mUsbDeviceInfoList.size(), isInput ? 0u : 1u);
            const DeviceInfo recorded = deviceList()[0];
            EXPECT_EQ(recorded.status, m.allowed);
            EXPECT_EQ(recorded.reason, m.reason);
            remove(c.device);
        }
    }
}

TEST_F(Admission, PlainHidDevicesAreLeftToTheInputSubsystem) {
    attach({std::string(kHidDirectory) + "/input"});
    setVendors({{1, -1}});
    const sp<FakeClient> client = new FakeClient();
    service_->registerKusCallback(client);
    for (const char* mode : {"default", "whitelist", "blacklist"}) {
        for (const std::vector<int32_t>& classes : {std::vector<int32_t>{}, {3}, {3, 3}}) {
            configMode = mode;
            takeLog();
            EXPECT_FALSE(isAllowed(usbDevice(kId, classes)));
            const std::vector<std::string> log = takeLog();
            EXPECT_EQ(log.front(), "I create_usb_device_map called");
            EXPECT_THAT(
                std::vector<std::string>(log.end() - 3, log.end()),
                ElementsAre("I check_vendor_hid 1002",
                            "I Found deviceId in native list : 1002\t interface path1-1:1.0 "
                            "device category0",
                            "I The HID device is controlled by Input Subsystem  "));
        }
    }
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_THAT(client->calls(), IsEmpty());
    EXPECT_TRUE(isAuthorized());
}

TEST_F(Admission, VendorSpecificHidDevicesAreDecidedByTheirVendor) {
    attach({kHidDirectory});
    configMode = "whitelist";
    classList = {8};
    EXPECT_FALSE(isAllowed(usbDevice(kId, {3, 3}, 100)));
    EXPECT_FALSE(isAuthorized());
    attach({kHidDirectory});
    setVendors({{100, -1}});
    EXPECT_TRUE(isAllowed(usbDevice(kId, {3, 3}, 100)));
    EXPECT_TRUE(isAuthorized());
    // Without a list of interfaces the device class is read as input sources.
    DeviceInfo bare = usbDevice(kId, {}, 7);
    bare.deviceClass = 0x100;
    classList = {0x100};
    EXPECT_TRUE(isAllowed(bare));
}

TEST_F(Admission, LogOfARefusal) {
    attach();
    configMode = "whitelist";
    classList = {8};
    takeLog();
    DeviceInfo device = usbDevice(kId, {3, 8, 6}, 4660, 22136);
    device.deviceClass = 8;
    EXPECT_FALSE(isAllowed(device));
    std::vector<std::string> log = takeLog();
    const auto scanned =
        std::find(log.begin(), log.end(), "I create_usb_device_map returned check loop");
    ASSERT_NE(scanned, log.end());
    EXPECT_EQ(log[0], "I class is 8not HID");
    EXPECT_EQ(log[1], "I create_usb_device_map called");
    log.erase(log.begin(), scanned + 1);
    EXPECT_THAT(
        log,
        ElementsAre("I 3", "I ", "I Found CLASS : 3 in restricted class list", "I 8", "I ",
                    "I Found CLASS : 8 in admin config list", "I 6", "I ",
                    "I interface class check false breaking", "I isDeviceAllowed res val:0",
                    "I isDeviceAllowed called and updating status authorized to 0",
                    "I update_status path with deviceId 1002 status:0",
                    "I Found deviceId in native list : 1002\t interface path1-1:1.0",
                    "I update_status path is :/sys/bus/usb/devices/1-1:1.0/authorized",
                    "I get_deviceid_data() with deviceId : 1002size--1",
                    "I Found deviceid  : 1002device : 1-1:1.0",
                    "I usb1002 device added to mUsbDeviceInfoList ", "I custom_struct size is 1",
                    "I  device category  0 categoryPath empty;",
                    "I isDeviceAllowed called with mode: whitelist DeviceInfo:= { DeviceId:1002, "
                    "DeviceName: usb1002, ClassName: USB_CLASS_MASS_STORAGE[ 8 ], "
                    "InterfaceClassCount: 3, VendorId: 4660, ProductId: 22136, Status: 0, Reason: "
                    "No matching rule found to Whitelist the device }"));
}

TEST_F(Admission, LogOfAnInputDevice) {
    configMode = "blacklist";
    classList = {0x100};
    takeLog();
    EXPECT_TRUE(isAllowed(inputDevice(7, 0x2102, 9, 10)));
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I checkMultiClass key_val8450", "I checkMultiClass--8448", "I Key not found",
                    "I ", "I Found CLASS : 256 in admin config list", "I HID multiClass check",
                    "I HID multiClass check", "I HID multi class check false breaking",
                    "I isDeviceAllowed res val:1", "I input7 device added to mInputDeviceInfoList",
                    "I isDeviceAllowed called with mode: blacklist DeviceInfo:= { "
                    "DeviceId:7, DeviceName: input7, ClassName:  [ 8450 ], "
                    "InterfaceClassCount: 0, VendorId: 9, ProductId: 10, Status: 1, "
                    "Reason: No matching rule found to Blacklist the device }"));
}

TEST_F(Admission, FailedDeauthorizationChangesNeitherAnswerNorRecord) {
    attach();
    configMode = "whitelist";
    std::filesystem::remove(sysfsPath(kInterface, "authorized"));
    stderrOf([&] { EXPECT_FALSE(isAllowed(usbDevice(kId, {8}))); });
    EXPECT_THAT(takeLog(), Contains("E Error! Could not open file"));
    EXPECT_EQ(mUsbDeviceInfoList.at(kId)->status, 0);
}

TEST_F(Admission, AutomationAllowsEverythingAndRecordsNothing) {
    attach();
    configMode = "whitelist";
    property_set("ro.config.device.kus_automation", "1");
    for (const DeviceInfo& device :
         {usbDevice(kId, {8}), usbDevice(kId, {3}), inputDevice(kId, 0x101)}) {
        EXPECT_TRUE(isAllowed(device));
        EXPECT_THAT(takeLog(), ElementsAre("I isDeviceAllowed::Automation flag set, return"));
    }
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_TRUE(isAuthorized());
}

TEST_F(Admission, AutomationIsOnlyTheNumberOne) {
    configMode = "whitelist";
    property_set("ro.config.device.kus_automation", "2");
    EXPECT_FALSE(isAllowed(usbDevice(kId, {8})));
}

// Both files refuse class 8. A decision that saw the mode of one and the tables of the other, or
// tables that are half full, would allow it.
TEST_F(Admission, NoDecisionSeesHalfLoadedRules) {
    std::string vendors;
    for (int vendor = 1; vendor <= 200; vendor++) {
        vendors += "<vid vendorid=\"" + std::to_string(vendor) + "\"/>";
    }
    writeFile("/data/blacklist.xml", "<usbconfig mode=\"blacklist\">" + vendors +
                                         "<class>USB_CLASS_MASS_STORAGE</class></usbconfig>");
    writeFile("/data/whitelist.xml", "<usbconfig mode=\"whitelist\">" + vendors +
                                         "<class>USB_CLASS_AUDIO</class></usbconfig>");
    Util::createMapFromConfig("/data/blacklist.xml");

    std::atomic<bool> done = false;
    std::thread administrator([&] {
        for (int i = 0; i < 20; i++) {
            Util::createMapFromConfig("/data/whitelist.xml");
            Util::createMapFromConfig("/data/blacklist.xml");
        }
        done = true;
    });
    std::atomic<int> allowed = 0;
    const auto decide = [&](int id) {
        DeviceInfo device = inputDevice(id, 0, 1000);
        device.interfaceClassList = {8};
        while (!done) allowed += isAllowed(device);
    };
    std::thread other(decide, 1);
    decide(2);
    other.join();
    administrator.join();
    EXPECT_EQ(allowed, 0);
}

TEST_F(Admission, ADecisionWaitsForRulesThatStayASecondAtMost) {
    for (const bool restored : {true, false}) {
        configMode = "blacklist";
        setRulesInDoubt(true);
        std::atomic<bool> answered = false;
        std::thread decision([&] {
            EXPECT_EQ(isAllowed(inputDevice(1, 0x101)), !restored);
            answered = true;
        });
        usleep(500000);
        EXPECT_FALSE(answered);
        if (restored) {
            loadRules("<usbconfig mode=\"whitelist\"/>");
            setRulesInDoubt(false);
        }
        decision.join();
        setRulesInDoubt(false);
    }
}

TEST_F(Admission, ARemovalDoesNotUndoARefusalThatIsBeingWritten) {
    configMode = "whitelist";
    for (int i = 0; i < 100; ++i) {
        attach();
        std::atomic<bool> done = false;
        std::thread removal([&] {
            while (!done) remove(usbDevice(kId, {8}));
        });
        EXPECT_FALSE(isAllowed(usbDevice(kId, {8})));
        done = true;
        removal.join();
        ASSERT_FALSE(isAuthorized()) << "in round " << i;
    }
}

}  // namespace
}  // namespace android::kus
