// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <cutils/properties.h>

#include "kus_test.h"

namespace android::kus {
namespace {

using std::chrono::steady_clock;

const std::string kHsusb = "/sys/devices/platform/soc/c200000.hsusb/mode";
const std::string kSsusb = "/sys/devices/platform/soc/a800000.ssusb/mode";
constexpr char kDcOnline[] = "/sys/class/power_supply/dc/online";
constexpr char kUsbOnline[] = "/sys/class/power_supply/usb/online";

const std::string kNone = "usb_host_reset mode set to none for syspath: ";
const std::string kHost = "usb_host_reset mode set to host for syspath: ";

/** The platform's three properties, one after the other: "111" when all are set. */
std::string monitor() {
    std::string values;
    for (const char* name : {"undock", "dock", "reset"}) {
        char value[PROPERTY_VALUE_MAX];
        property_get((std::string("persist.vendor.monitor.") + name).c_str(), value, "-");
        values += value;
    }
    return values;
}

/** Returns the milliseconds that it took. */
int64_t reset(int value) {
    const auto start = steady_clock::now();
    UsbDevice::usb_host_reset(value);
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start).count();
}

class HostReset : public KusTest {
  protected:
    /** An adapter on bus 12, which is looked up under its first digit, with this devspec there. */
    void attachDisplayLink(const std::string& devspec) {
        UsbDevice::deviceid_map = {{1001, {}}, {1002, mapRecord("12-1:1.0", 0, 0x17E9)}};
        writeFile(sysfsPath("usb1", "devspec"), devspec);
    }
};

TEST_F(HostReset, ControllersInTheHostRoleAreToggledOneAfterTheOther) {
    // What follows the four bytes of the role stays.
    writeFile(kHsusb, "host\n");
    writeFile(kSsusb, "host");
    static Texts steps;
    base::SetLogger([](base::LogId, base::LogSeverity, const char*, const char*, unsigned int,
                       const char* text) {
        steps.push_back(readFile(kHsusb) + " | " + text);
        if (text != kNone + kSsusb) return;
        UsbDevice::give_host_role_back();
        EXPECT_EQ(readFile(kSsusb), "host") << "what a crash would do now";
    });
    EXPECT_THAT(reset(0), Ge(400));
    UsbDevice::give_host_role_back();
    EXPECT_THAT(steps, ElementsAre("host\n | usb_host_reset entered:", "none\n | " + kNone + kHsusb,
                                   "none\n | " + kHost + kHsusb, "host\n | " + kNone + kSsusb,
                                   "host\n | " + kHost + kSsusb));
    EXPECT_EQ(readFile(kSsusb), "host");
}

TEST_F(HostReset, OneResetRunsAtATimeAndOneThatWaitsServesAllRequests) {
    writeFile(kSsusb, "host");
    std::thread other([] { reset(-1); });
    {
        const std::lock_guard busy(UsbDevice::hostResetMutex);
        for (int i = 0; i < 3; ++i) UsbDevice::request_host_reset();
        EXPECT_TRUE(UsbDevice::requested_reset_runs());
    }
    reset(0);
    other.join();
    while (UsbDevice::requested_reset_runs()) sleep_for(milliseconds(1));
    // A request that comes when the last one has begun is one of its own.
    UsbDevice::request_host_reset();
    while (UsbDevice::requested_reset_runs()) sleep_for(milliseconds(1));
    const Texts log = takeLog();
    EXPECT_EQ(countOf("I " + kNone + kSsusb, log), 4);
    EXPECT_EQ(countOf("I " + kHost + kSsusb, log), 4);
    EXPECT_EQ(readFile(kSsusb), "host");
}

TEST_F(HostReset, ReadAndWriteOfAnAttribute) {
    char value[8] = "old";
    writeFile("/sys/empty", "");
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys/none", value, sizeof(value)), 0u);
    EXPECT_EQ(UsbDevice::write_sysfs_val("/sys/none", "host", 4), 0u);
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys/empty", value, sizeof(value)), 0u);
    EXPECT_EQ(UsbDevice::write_sysfs_val("/dev/full", "host", 4), 0u);
    EXPECT_STREQ(value, "old");
    EXPECT_LOG("E Unable to open sysfs path for reading/sys/none",
               "E Unable to open  sysfs path for writing/sys/none",
               "E Unable to read from sysfs path0", "E Unable to write to sysfs path-1");

    writeFile("/sys/value", "0123456789");
    EXPECT_EQ(UsbDevice::read_sysfs_val("/sys/value", value, sizeof(value)), 7u);
    EXPECT_STREQ(value, "0123456");
    EXPECT_EQ(UsbDevice::write_sysfs_val("/sys/value", "host", 2), 2u);
    EXPECT_EQ(readFile("/sys/value"), "ho23456789");
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(HostReset, DockedDeviceIsUndockedAndDockedAgain) {
    writeFile(kDcOnline, "1");
    EXPECT_THAT(reset(50), Ge(50));
    EXPECT_EQ(monitor(), "111");
    // The thread's first poll comes before or after the line about its start.
    const std::string exit = "I readSysfsChangeEvent:exit poll due to virtual dock";
    EXPECT_THAT(takeLogUntil(exit),
                testing::UnorderedElementsAre(
                    "I usb_host_reset entered:", "I virtual_undock_dock_event usbPath : empty",
                    "I virtual_undock_dock_event usbPath empty for non-display link device",
                    "I registerFileObserverViaThread result--0",
                    "I readSysfsChangeEvent:polling for power_val "
                    "/sys/class/power_supply/dc/onlinepower_val:1",
                    exit));
}

TEST_F(HostReset, WithoutADockOrTheHostRoleNothingHappens) {
    for (const char* role : {"peripheral", "none", "", " host", "hos"}) {
        writeFile(kHsusb, role);
        reset(0);
        EXPECT_EQ(readFile(kHsusb), role);
    }
    EXPECT_FALSE(fs::exists(kSsusb));
    writeFile(kDcOnline, "0\n");
    UsbDevice::virtualDockDone = true;
    EXPECT_LT(reset(5000), 4000);
    EXPECT_FALSE(UsbDevice::virtualDockDone);
    // Nor with a display adapter, where its controller is not known or not in the host role.
    for (const char* devspec : {"", "/soc/ssusb@a800000"}) {
        attachDisplayLink(devspec);
        writeFile(kSsusb, "peripheral");
        EXPECT_LT(reset(5000), 4000);
        EXPECT_EQ(readFile(kSsusb), "peripheral");
    }
    EXPECT_EQ(monitor(), "---");
}

TEST_F(HostReset, RealUndockDuringTheWaitDocksAtOnce) {
    writeFile(kDcOnline, "1");
    std::thread user([] {
        while (monitor() != "1-1") sleep_for(milliseconds(1));
        writeFile(kDcOnline, "0");
        takeLogUntil("I readSysfsChangeEvent: undocked power_val0");
        while (monitor() != "111") sleep_for(milliseconds(1));
        EXPECT_FALSE(UsbDevice::virtualDockDone) << "not before the wait is over";
        property_set("persist.vendor.monitor.dock", "0");
    });
    reset(1000);
    user.join();
    EXPECT_EQ(monitor(), "111") << "asked for again when the wait is over";
}

TEST_F(HostReset, ControllerOfADisplayLinkAdapter) {
    EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), "empty");
    const std::pair<const char*, std::string> cases[] = {
        {"/soc/hsusb@c200000\n", kHsusb},
        {"/soc/ssusb@a800000/dwc3@a800000", kSsusb},
        {"", ""},
        {"/", "empty"},
        {"/soc/ssusb", "empty"}};
    for (const auto& [devspec, path] : cases) {
        attachDisplayLink(devspec);
        EXPECT_EQ(UsbDevice::get_displaylink_soc_path(), path) << devspec;
    }
}

TEST_F(HostReset, DisplayLinkControllerGetsItsRoleBackOnlyWithPower) {
    const std::string event = "I virtual_undock_dock_event mode set to ";
    const std::string host = event + "host for syspath: " + kSsusb;
    const struct {
        const char *usb, *dc, *role;
        std::string lastLine;
    } cases[] = {{"1", "0", "host", host},
                 {"0", "1", "host", host},
                 {"2", "0", "none", "I device is undocked, not charging state"},
                 {nullptr, "1", "none", event + "none for syspath: " + kSsusb}};
    attachDisplayLink("/soc/ssusb@a800000");
    for (const auto& c : cases) {
        fs::remove_all("/sys/class");
        if (c.usb) writeFile(kUsbOnline, c.usb);
        writeFile(kDcOnline, c.dc);
        writeFile(kSsusb, "host");
        EXPECT_THAT(reset(30), Ge(c.lastLine == host ? 130 : 30));
        EXPECT_EQ(readFile(kSsusb), c.role);
        EXPECT_EQ(takeLog().back(), c.lastLine);
    }
    // A supply that is no number ends the process.
    writeFile(kSsusb, "host");
    writeFile(kUsbOnline, "on");
    EXPECT_EXIT(std::thread([] { UsbDevice::usb_host_reset(1); }).join(), KilledBySignal(SIGABRT),
                "invalid_argument");
}

}  // namespace
}  // namespace android::kus
