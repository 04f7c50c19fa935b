// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <cutils/properties.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <thread>

#include "kus_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;

const std::string kHsusb = "/sys/devices/platform/soc/c200000.hsusb/mode";
const std::string kSsusb = "/sys/devices/platform/soc/a800000.ssusb/mode";
constexpr char kDcOnline[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbOnline[] = "/sys/class/power_supply/usb/online";
constexpr char kPollExit[] = "I readSysfsChangeEvent:exit poll due to virtual dock";

std::string property(const std::string& name) {
    char value[PROPERTY_VALUE_MAX];
    property_get(("persist.vendor.monitor." + name).c_str(), value, "");
    return value;
}

class HostReset : public KusTest {
  protected:
    /** Records "ROLE | LOG LINE" with each log line, so that the order of writes shows. */
    void watch(const std::string& path) {
        base::SetLogger([this, path](base::LogId, base::LogSeverity, const char*, const char*,
                                     unsigned int, const char* text) {
            const std::lock_guard lock(stepsLock_);
            steps_.push_back(readFile(path) + " | " + text);
        });
    }

    /** Returns the milliseconds that it took. */
    int64_t reset(int value) {
        const auto start = steady_clock::now();
        UsbDevice::usb_host_reset(value);
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
    }

    /** An adapter whose first bus digit is 1, with this devspec on the root hub of bus 1. */
    void attachDisplayLink(const std::string& devspec, const char* interfaceName = "1-1:1.0") {
        usbinterface_custom adapter = {};
        strcpy(adapter.name, interfaceName);
        adapter.idVendor = 0x17E9;
        UsbDevice::deviceid_map = {{1001, {}}, {1002, adapter}};
        writeFile(sysfsPath("usb1", "devspec"), devspec);
    }

    std::mutex stepsLock_;
    std::vector<std::string> steps_;
};

TEST_F(HostReset, ControllersInTheHostRoleAreToggledOneAfterTheOther) {
    const std::string none = "usb_host_reset mode set to none for syspath: ";
    const std::string host = "usb_host_reset mode set to host for syspath: ";
    // What follows the four bytes of the role stays.
    writeFile(kHsusb, "host\n");
    writeFile(kSsusb, "host");
    watch(kHsusb);
    EXPECT_THAT(reset(0), Ge(400));
    EXPECT_THAT(steps_, ElementsAre("host\n | usb_host_reset entered:", "none\n | " + none + kHsusb,
                                    "none\n | " + host + kHsusb, "host\n | " + none + kSsusb,
                                    "host\n | " + host + kSsusb));
    EXPECT_EQ(readFile(kSsusb), "host");

    // Two at once: the second finds the role given back.
    std::filesystem::remove(kHsusb);
    steps_.clear();
    watch(kSsusb);
    std::thread other([this] { reset(-1); });
    reset(0);
    other.join();
    EXPECT_EQ(std::count(steps_.begin(), steps_.end(), "none | " + none + kSsusb), 2);
    EXPECT_EQ(std::count(steps_.begin(), steps_.end(), "none | " + host + kSsusb), 2);
    EXPECT_EQ(readFile(kSsusb), "host");
}

TEST_F(HostReset, OtherControllersAreLeftAlone) {
    for (const char* role : {"peripheral", "none", "", " host", "hos"}) {
        writeFile(kHsusb, role);
        reset(0);
        EXPECT_EQ(readFile(kHsusb), role);
    }
    EXPECT_FALSE(std::filesystem::exists(kSsusb));
    EXPECT_EQ(property("reset"), "");
    EXPECT_THAT(takeLog(), Contains("E Unable to read from sysfs path0"));
}

TEST_F(HostReset, ReadAndWriteOfAnAttribute) {
    char value[8] = "old";
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys/none", value, sizeof(value)), 0u);
    EXPECT_EQ(UsbDevice::write_sysfs_val("/sys/none", "host", 4), 0u);
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys", value, sizeof(value)), 0u);
    EXPECT_EQ(UsbDevice::write_sysfs_val("/dev/full", "host", 4), 0u);
    EXPECT_FALSE(std::filesystem::exists("/sys/none"));
    EXPECT_STREQ(value, "old");
    EXPECT_THAT(takeLog(), ElementsAre("E Unable to open sysfs path for reading/sys/none",
                                       "E Unable to open  sysfs path for writing/sys/none",
                                       "E Unable to read from sysfs path-1",
                                       "E Unable to write to sysfs path-1"));

    writeFile("/sys/value", "0123456789");
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys/value", value, sizeof(value)), 7u);
    EXPECT_STREQ(value, "0123456");
    EXPECT_EQ(UsbDevice::write_sysfs_val("/sys/value", "host", 2), 2u);
    EXPECT_EQ(readFile("/sys/value"), "ho23456789");
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(HostReset, SplitKeepsEmptyFieldsButTheLast) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"", {}},
        {"a", {"a"}},
        {"/soc/a@b\n", {"", "soc", "a@b"}},
        {"a//b", {"a", "", "b"}},
        {"/", {""}},
        {"a/", {"a"}},
        {"a\nb/\n", {"ab", ""}}};
    for (const auto& [text, fields] : cases) EXPECT_EQ(UsbDevice::split(text, '/'), fields) << text;
}

TEST_F(HostReset, DockedDeviceIsUndockedAndDockedAgain) {
    writeFile(kDcOnline, "1");
    EXPECT_THAT(reset(50), Ge(50));
    for (const char* name : {"undock", "dock", "reset"}) EXPECT_EQ(property(name), "1") << name;
    // The thread's first poll comes before or after the line about its start.
    EXPECT_THAT(takeLogUntil(kPollExit),
                testing::UnorderedElementsAre(
                    "I usb_host_reset entered:", "I virtual_undock_dock_event usbPath : empty",
                    "I virtual_undock_dock_event usbPath empty for non-display link device",
                    "I registerFileObserverViaThread result--0",
                    "I readSysfsChangeEvent:polling for power_val "
                    "/sys/class/power_supply/dc/onlinepower_val:1",
                    kPollExit));
}

TEST_F(HostReset, UndockedDeviceStaysAsItIs) {
    writeFile(kDcOnline, "0\n");
    UsbDevice::virtualDockDone = true;
    EXPECT_LT(reset(5000), 4000);
    EXPECT_FALSE(UsbDevice::virtualDockDone);
    for (const char* name : {"undock", "dock", "reset"}) EXPECT_EQ(property(name), "") << name;
    EXPECT_THAT(takeLog(), testing::SizeIs(3));
}

TEST_F(HostReset, RealUndockDuringTheWaitDocksAtOnce) {
    writeFile(kDcOnline, "1");
    bool inTime = false;
    std::thread user([&] {
        while (property("undock") != "1") std::this_thread::sleep_for(milliseconds(1));
        writeFile(kDcOnline, "0");
        takeLogUntil("I readSysfsChangeEvent: undocked power_val0");
        while (property("dock") != "1") std::this_thread::sleep_for(milliseconds(1));
        inTime = !UsbDevice::virtualDockDone;
        property_set("persist.vendor.monitor.dock", "0");
    });
    reset(1000);
    user.join();
    EXPECT_TRUE(inTime);
    // Asked for again when the wait is over.
    EXPECT_EQ(property("dock"), "1");
    EXPECT_EQ(property("reset"), "1");
}

TEST_F(HostReset, ControllerOfADisplayLinkAdapter) {
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "empty");
    EXPECT_THAT(takeLog(), IsEmpty());
    attachDisplayLink("/soc/hsusb@c200000\n");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), kHsusb);
    EXPECT_THAT(takeLog(),
                ElementsAre("I get_displaylink_soc_path /sys/bus/usb/devices/usb1/devspec",
                            "I get_displaylink_soc_path devspec_val : /soc/hsusb@c200000", "I "));
    // Bus 12 is looked up under its first digit.
    attachDisplayLink("/soc/ssusb@a800000/dwc3@a800000", "12-1:1.0");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), kSsusb);
    attachDisplayLink("");
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "");
    for (const char* malformed : {"/soc", "/soc/ssusb"}) {
        attachDisplayLink(malformed);
        EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "empty") << malformed;
    }
}

TEST_F(HostReset, DisplayLinkControllerGetsItsRoleBackOnlyWithPower) {
    const std::string event = "I virtual_undock_dock_event ";
    const std::string host = event + "mode set to host for syspath: " + kSsusb;
    const std::string checkDock = event + "check for dc charge state";
    const struct {
        const char *usb, *dc;
        std::vector<std::string> log;
        const char* role;
    } cases[] = {
        {"1", "0", {"I USB charging_state val 1", "I power_supply_state val 1", host}, "host"},
        {"0",
         "1",
         {"I USB charging_state val 0", "I power_supply_state val 0", checkDock,
          "I DC charging_state val 1", "I DC power_supply_state val 1", host},
         "host"},
        {"2",
         "0",
         {"I USB charging_state val 2", "I power_supply_state val 2", checkDock,
          "I DC charging_state val 0", "I DC power_supply_state val 0",
          "I device is undocked, not charging state"},
         "none"},
        {nullptr, "1", {}, "none"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.log));
        std::filesystem::remove_all("/sys/class");
        attachDisplayLink("/soc/ssusb@a800000");
        if (c.usb) writeFile(kUsbOnline, c.usb);
        writeFile(kDcOnline, c.dc);
        writeFile(kSsusb, "host");
        takeLog();
        EXPECT_THAT(reset(30), Ge(c.role == std::string("host") ? 130 : 30));
        EXPECT_EQ(readFile(kSsusb), c.role);
        std::vector<std::string> expected = {
            "I usb_host_reset entered:",
            "I get_displaylink_soc_path /sys/bus/usb/devices/usb1/devspec",
            "I get_displaylink_soc_path devspec_val : /soc/ssusb@a800000",
            event + "usbPath : " + kSsusb,
            event + "usbPath for display link device",
            event + "mode set to none for syspath: " + kSsusb};
        expected.insert(expected.end(), c.log.begin(), c.log.end());
        EXPECT_EQ(takeLog(), expected);
    }
    // A controller that is not in the host role, or not known, is no dock either.
    writeFile(kSsusb, "peripheral");
    EXPECT_LT(reset(5000), 4000);
    EXPECT_EQ(readFile(kSsusb), "peripheral");
    attachDisplayLink("");
    EXPECT_LT(reset(5000), 4000);
    EXPECT_EQ(property("undock"), "");
}

using HostResetDeathTest = HostReset;

TEST_F(HostResetDeathTest, PowerThatIsNoNumberEndsTheProcess) {
    attachDisplayLink("/soc/ssusb@a800000");
    writeFile(kSsusb, "host");
    writeFile(kUsbOnline, "on");
    EXPECT_EXIT([]() noexcept { UsbDevice::usb_host_reset(1); }(), testing::KilledBySignal(SIGABRT),
                "invalid_argument");
}

}  // namespace
}  // namespace android::kus
