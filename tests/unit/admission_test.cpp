// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include "service_test.h"

namespace android::kus {
namespace {

constexpr char kInterface[] = "1-1:1.0";

class Admission : public ServiceTest {
  protected:
    void attach(const Texts& directories = {}) {
        for (const char* path : {"/sys/bus", "/sys/devices"}) fs::remove_all(path);
        addDevice("1-1", 2);
        addInterface(kInterface, 3, directories);
    }

    bool isAuthorized() { return readFile(sysfsPath(kInterface, "authorized")) == "1\n"; }
};

constexpr int kId = 1002;

DeviceInfo usb(std::vector<int32_t> classes, int32_t vendor = 1, int32_t product = 1) {
    return usbDevice(kId, std::move(classes), vendor, product);
}

DeviceInfo input(int32_t sources, int32_t vendor = 1, int32_t product = 1) {
    return inputDevice(kId, sources, vendor, product);
}

const std::string kByClass = "Match by ClassName, CLASS : ";
const std::string kStorage = kByClass + "USB_CLASS_MASS_STORAGE ";
const std::string kMice = kByClass + "AINPUT_SOURCE_MOUSE AINPUT_SOURCE_MOUSE_RELATIVE ";
const std::string kByVendor = "Match by VID, VID : 100";
const std::string kByPair = "Match by VID_PID combination, VID : 100 PID: 7";

const struct {
    std::vector<int32_t> classes;
    Vendors vendors;
    DeviceInfo device;
    /** Empty when no rule matches. */
    std::string match;
} kCases[] = {
    {{8}, {}, usb({8}), kStorage},
    {{8}, {}, usb({8, 3, 8}), kStorage},
    {{2, 10}, {}, usb({10, 2}), kByClass + "USB_CLASS_CDC_DATA USB_CLASS_COMM "},
    {{}, {}, usb({8}), ""},
    // One class that is not listed breaks the match of the others.
    {{8}, {}, usb({8, 6}), ""},
    {{8}, {}, usb({6, 8}), ""},
    // Restricted classes are passed over, and alone are no match.
    {{8}, {}, usb({255, 8}), kStorage},
    {{8}, {}, usb({0, 9, 239, 254, 255}), ""},
    // A name is left out where the reason holds it already, as another name's part too.
    {{0x2000, 0x20000}, {}, usb({0x20000, 0x2000}), kByClass + "AINPUT_SOURCE_MOUSE_RELATIVE "},
    {{77}, {}, usb({77}), kByClass},

    // Every source of an input device must be listed.
    {{0x100}, {}, input(0x101), kByClass + "AINPUT_SOURCE_KEYBOARD "},
    {{0x2000, 0x20000}, {}, input(0x22002), kMice},
    {{0x100}, {}, input(0x2102), ""},
    {{3}, {}, input(3), ""},

    // Vendors are asked only where the classes gave no verdict.
    {{8}, {{100, -1}}, usb({8}, 100), kStorage},
    {{8}, {{100, -1}}, usb({8, 6}, 100), kByVendor},
    {{0x100}, {{100, -1}}, input(0x2102, 100), kByVendor},
    {{3}, {{100, 7}}, input(3, 100, 7), kByPair},
    {{}, {{100, -1}}, usb({8}, 101), ""},
    {{}, {{100, 5}, {100, 7}}, usb({255}, 100, 7), kByPair},
    {{}, {{100, 5}}, usb({8}, 100, 6), ""},
    {{}, {{7, 100}}, usb({8}, 100, 7), ""},
    // A vendor is listed as a whole when it is listed, and it or a greater one without products.
    {{}, {{100, -1}, {100, 7}}, usb({8}, 100, 7), kByVendor},
    {{}, {{100, 7}, {200, -1}}, usb({8}, 100, 7), kByVendor},
    {{}, {{100, 7}, {200, 6}}, usb({8}, 100, 7), kByPair},
    {{}, {{50, -1}, {100, 7}}, usb({8}, 100, 7), kByPair},
    {{}, {{50, 5}, {200, -1}}, usb({8}, 100), ""},
};

TEST_F(Admission, MatchAllowsInWhitelistModeAndBlocksInBlacklistMode) {
    for (const auto& [classes, vendors, device, match] : kCases) {
        // The last two are what a rejected file can leave behind.
        for (const std::string mode : {"default", "whitelist", "blacklist", "Blacklist", ""}) {
            const std::string list = mode == "blacklist" ? "Blacklist" : "Whitelist";
            const bool expected = mode == "default" || match.empty() == (mode == "blacklist");
            const std::string reason = mode == "default" ? "Enabled by default rule"
                                       : match.empty()
                                           ? "No matching rule found to " + list + " the device"
                                           : list + "ed: " + match;
            SCOPED_TRACE(mode + ", " + text(device));
            attach();
            configMode = mode;
            classList = classes;
            setVendors(vendors);
            EXPECT_EQ(isAllowed(device), expected);
            EXPECT_EQ(isAuthorized(), expected || device.deviceType == 1);
            ASSERT_EQ(deviceList().size(), 1u);
            EXPECT_EQ(deviceList()[0].status, expected);
            EXPECT_EQ(deviceList()[0].reason, reason);
            remove(device);
        }
    }
}

TEST_F(Admission, HidDevicesAreLeftToTheInputSubsystem) {
    attach({"0003:046D:C31C.0001/input"});
    setVendors({{1, -1}});
    for (const char* mode : {"default", "whitelist", "blacklist"}) {
        configMode = mode;
        for (const auto& device : {usb({}), usb({3}), usb({3, 3})}) {
            bool allowed = true;
            EXPECT_TRUE(service_->isDeviceAllowed(device, &allowed).isOk());
            EXPECT_FALSE(allowed);
        }
    }
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_TRUE(isAuthorized());
    // But for vendor-specific ones.
    attach({"0003:046D:C31C.0001"});
    configMode = "whitelist";
    for (const int vendor : {1, 2}) {
        EXPECT_EQ(isAllowed(usb({3, 3}, vendor)), vendor == 1);
        EXPECT_EQ(isAuthorized(), vendor == 1);
    }
    // Without a list of interfaces the device class is read as input sources.
    DeviceInfo bare = usb({}, 2);
    bare.deviceClass = 0x100;
    classList = {0x100};
    EXPECT_TRUE(isAllowed(bare));
}

TEST_F(Admission, AutomationAllowsEverythingAndRecordsNothing) {
    configMode = "whitelist";
    property_set("ro.config.device.kus_automation", "1");
    for (const DeviceInfo& device : {usb({8}), usb({3}), input(0x101)}) {
        EXPECT_TRUE(isAllowed(device));
        EXPECT_LOG("I isDeviceAllowed::Automation flag set, return");
    }
    EXPECT_THAT(deviceList(), IsEmpty());
    fs::remove_all("/dev/__properties__");
    property_set("ro.config.device.kus_automation", "2");
    EXPECT_FALSE(isAllowed(usb({8})));
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
            while (!done) remove(usb({8}));
        });
        EXPECT_FALSE(isAllowed(usb({8})));
        done = true;
        removal.join();
        ASSERT_FALSE(isAuthorized()) << "in round " << i;
    }
}

}  // namespace
}  // namespace android::kus
