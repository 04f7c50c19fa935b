// SPDX-License-Identifier: Apache-2.0

// The gate with --closed. What must never happen is recorded by the kernel itself, so that nothing
// happens between two looks.
#include <android-base/unique_fd.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <thread>

#include "device_test.h"
#include "kernel_trace.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using kernel_probes::kBound;
using kernel_probes::kUnbound;
using testing::AllOf;
using testing::Each;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr char kOptions[] = "/system/etc/kusgate.options";
constexpr char kLog[] = "/data/log/kusgate.log";
constexpr char kNothingAllowed[] = "<class>USB_CLASS_AUDIO</class>";
constexpr char kBehindTheHub[] = "1-1.3";
constexpr char kReauthorizeHub[] =
    "cd /sys/bus/usb/devices/1-1; echo 0 >authorized; usleep 200000; echo 1 >authorized";

pid_t gatePid() { return stoi(shell("services pid kusgate")); }

/** The interfaces of these devices in the events that were recorded. */
std::vector<std::string> interfacesIn(KernelTrace* trace, const std::vector<std::string>& devices) {
    std::vector<std::string> interfaces;
    for (const KernelTrace::Event& event : trace->take()) {
        for (const std::string& device : devices) {
            const bool found = event.arguments.find('"' + device + ':') != std::string::npos;
            if (found) interfaces.push_back(event.arguments);
        }
    }
    return interfaces;
}

/** Whether the service has decided so on each of them, as they are now. */
bool areDecided(const std::vector<std::string>& entries, int status) {
    return std::all_of(entries.begin(), entries.end(), [&](const std::string& entry) {
        const int id = idOf(entry);
        const DeviceInfo device = recorded(id);
        return id != 0 && device.deviceId == id && device.status == status;
    });
}

void switchRoles(const std::string& role) {
    shell("printf " + role + " | tee /sys/devices/platform/soc/*/mode");
}

/** One device of each kind: four of the virtual controllers', and one behind a hub. */
class EachKind {
  public:
    std::vector<std::string> entries() const {
        return {stick_.entry(), network_.entry(), serial_.entry(), both_.entry(), kBehindTheHub};
    }

    /** Of each interface, in this order. */
    std::vector<std::string> states() const {
        std::vector<std::string> all;
        for (const std::string& entry : entries()) {
            const std::vector<std::string> states = statesOf(entry);
            all.insert(all.end(), states.begin(), states.end());
        }
        return all;
    }

    /** Takes all of them away and brings them back, as new devices for the kernel. */
    void comeAgain() const {
        const std::vector<int> before = ids();
        switchRoles("none");
        shell(kReauthorizeHub);
        switchRoles("host");
        const auto isNew = [](int id, int old) { return id != 0 && id != old; };
        EXPECT_TRUE(eventually([&] {
            const std::vector<int> now = ids();
            return std::equal(now.begin(), now.end(), before.begin(), isNew);
        }));
    }

  private:
    std::vector<int> ids() const {
        std::vector<int> ids;
        for (const std::string& entry : entries()) ids.push_back(idOf(entry));
        return ids;
    }

    const Plugged stick_{"stick", kStick};
    const Plugged network_{"network", "--vendor 3034 --product 1 --network"};
    const Plugged serial_{"serial", kSerial};
    const Plugged both_{"both", "--vendor 2385 --product 5735 --storage --keyboard"};
};

/** Sends a text as the kernel would, to a group of listeners or to the port of one; true if sent.
 */
bool forgeEvent(const std::string& text, unsigned group, unsigned port) {
    const base::unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = group;
    address.nl_pid = port;
    return sendto(fd.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address),
                  sizeof(address)) == static_cast<ssize_t>(text.size());
}

class ClosedGateTest : public DeviceTest {
  protected:
    static void SetUpTestSuite() {
        options_ = contentOf(kOptions);
        shell(std::string("echo --closed >") + kOptions + "; services start kusgate");
    }

    static void TearDownTestSuite() {
        if (options_ == "--closed") return;
        openBuses();
        shell(std::string("services stop kusgate; rm ") + kOptions);
        shell(kReauthorizeHub);
        shell("services start kusgate");
    }

    void SetUp() override {
        DeviceTest::SetUp();
        // No controller of it is reset with the rules.
        shell(kReauthorizeHub);
        EXPECT_TRUE(eventually([] { return areDecided({kBehindTheHub}, 1); }));
    }

    void TearDown() override {
        shell("services start kusd kusgate");
        switchRoles("host");
    }

    static void openBuses() {
        shell("echo 1 | tee /sys/bus/usb/devices/usb*/interface_authorized_default");
    }

  private:
    static std::string options_;
};

std::string ClosedGateTest::options_;

TEST_F(ClosedGateTest, RefusedDevicesNeverGetADriver) {
    setRules("whitelist", kNothingAllowed);
    const EachKind devices;
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"the daemon is up", [&] { devices.comeAgain(); }},
        {"it hangs",
         [&] {
             const Stopped daemon(daemonPid());
             devices.comeAgain();
         }},
        {"it is away",
         [&] {
             shell("services stop kusd");
             devices.comeAgain();
             shell("services start kusd");
         }},
        {"it is killed again and again",
         [&] {
             const Again kills(1700ms, [] { shell("kill -KILL $(services pid kusd); true"); });
             for (int i = 0; i < 3; ++i) devices.comeAgain();
         }},
        {"its rules change",
         [&] {
             const Again rewrites(3s, [video = false]() mutable {
                 const char* wanted = (video = !video) ? "<class>USB_CLASS_VIDEO</class>" : "";
                 writeFile(configFilePath, rulesText("whitelist", wanted));
             });
             devices.comeAgain();
         }},
        {"it resets the controllers", [&] { service()->resetUsbDevices(0); }}};
    for (const auto& [text, happens] : cases) {
        SCOPED_TRACE(text);
        KernelTrace bound({kBound});
        happens();
        EXPECT_TRUE(eventually([&] { return areDecided(devices.entries(), 0); }));
        EXPECT_THAT(interfacesIn(&bound, devices.entries()), IsEmpty());
        EXPECT_THAT(devices.states(), AllOf(SizeIs(8), Each(" 0")));
    }
}

TEST_F(ClosedGateTest, AllowedDevicesWorkAndStayOpenAcrossRestarts) {
    const std::vector<std::string> open = {"usb-storage 1", "cdc_ether 1", "cdc_ether 1",
                                           "cdc_acm 1",     "cdc_acm 1",   "usb-storage 1",
                                           "usbhid 1",      "ftdi_sio 1"};
    const EachKind devices;
    for (int i = 0; i < 2; ++i) {
        if (i > 0) devices.comeAgain();
        EXPECT_TRUE(eventually([&] {
            return devices.states() == open && areDecided(devices.entries(), 1) && sticks() == 2 &&
                   std::filesystem::exists("/sys/class/net/usb0") &&
                   std::filesystem::exists("/dev/ttyACM0");
        })) << testing::PrintToString(devices.states());
    }
    KernelTrace unbound({kUnbound});
    for (const char* service : {"kusd", "kusgate", "servicemanager"}) {
        const std::string allowed = std::string("grep -c 'allowed 1-1.3' ") + kLog;
        const int answers = stoi(shell(allowed));
        shell(std::string("kill -KILL $(services pid ") + service + ")");
        EXPECT_TRUE(eventually([&] { return stoi(shell(allowed)) > answers; })) << service;
    }
    EXPECT_THAT(interfacesIn(&unbound, devices.entries()), IsEmpty());
}

/** Whether it arrives when the one keyboard that is plugged in says that a key is pressed. */
bool keyArrives(const std::string& input) {
    return shell("timeout 1 cat /dev/input/$(basename " + input +
                 "/event*) >/tmp/events & usleep 300000;"
                 "printf '\\0\\0\\04\\0\\0\\0\\0\\0' | timeout 1 tee /dev/hidg0 >/dev/null;"
                 "wait; wc -c </tmp/events") != "0";
}

TEST_F(ClosedGateTest, AnInputDeviceIsSilentUntilItsAnswer) {
    const Plugged keyboard("keys", kKeyboard);
    EXPECT_TRUE(eventually([] { return recorded("Virtual keys").status == 1; }));
    std::optional<Stopped> daemon(daemonPid());
    // The input device of an interface that is open comes again.
    shell("for action in unbind bind; do echo " + keyboard.entry() +
          ":1.0 >/sys/bus/usb/drivers/usbhid/$action; done");
    const std::string input =
        shell("dirname $(grep -l 'Virtual keys' /sys/class/input/input*/name)");
    const auto isSilenced = [&] { return contentOf(input + "/inhibited") == "1"; };
    EXPECT_TRUE(eventually(isSilenced));
    EXPECT_FALSE(keyArrives(input));
    daemon.reset();
    EXPECT_TRUE(eventually([&] { return !isSilenced(); }));
    EXPECT_TRUE(keyArrives(input));
}

// Without its drivers it looks like a keyboard, so it is open for the one question with them.
TEST_F(ClosedGateTest, ARefusedVendorHidIsOpenUntilItsAnswerAlone) {
    setRules("whitelist", kNothingAllowed);
    Plugged hid("hid", "--vendor 1678 --product 8 --vendor-hid");
    const std::string interface = hid.entry() + ":1.0";
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(hid.decision().status, 0);
        hid.expectState(" 0");
        KernelTrace trace({kBound, kUnbound});
        hid.replug();
        EXPECT_EQ(hid.decision().status, 0);
        hid.expectState(" 0");
        EXPECT_THAT(interfacesIn(&trace, {hid.entry()}), SizeIs(2)) << "not opened just once";
    }
    // Whatever the daemon has been asked when it goes.
    for (int i = 0; i < 5; ++i) {
        hid.replug();
        std::this_thread::sleep_for(50ms * i);
        shell("services stop kusd");
        hid.expectState(" 0");
        shell("services start kusd");
        EXPECT_EQ(hid.decision().status, 0);
    }
    shell("services stop kusd");
    KernelTrace bound({kBound});
    hid.replug();
    std::this_thread::sleep_for(1s);
    EXPECT_THAT(interfacesIn(&bound, {hid.entry()}), IsEmpty());
}

TEST_F(ClosedGateTest, WhatTheKernelHasOpenedIsClosedUntilItsAnswer) {
    shell("services stop kusd kusgate");
    openBuses();
    Plugged stick("stick", kStick);
    stick.expectState("usb-storage 1");
    shell("services start kusgate");
    stick.expectState(" 0");
    KernelTrace bound({kBound});
    stick.replug();
    std::this_thread::sleep_for(1s);
    EXPECT_THAT(interfacesIn(&bound, {stick.entry()}), IsEmpty());
    shell("services start kusd");
    stick.expectState("usb-storage 1");
}

TEST_F(ClosedGateTest, ADeviceThatCallsItselfAHubIsAskedAbout) {
    setRules("whitelist", kNothingAllowed);
    Plugged stick("stick", kStick);
    shell("echo 9 >/sys/kernel/config/usb_gadget/stick/bDeviceClass");
    KernelTrace bound({kBound});
    stick.replug();
    EXPECT_EQ(contentOf("/sys/bus/usb/devices/" + stick.entry() + "/bDeviceClass"), "09");
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_THAT(interfacesIn(&bound, {stick.entry()}), IsEmpty());
}

TEST_F(ClosedGateTest, OnlyTheKernelIsBelieved) {
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 1);
    const std::string path = "/devices/x/" + stick.entry();
    const std::string removal = "remove@" + path + '\0' + "ACTION=remove" + '\0' +
                                "DEVPATH=" + path + '\0' + "SUBSYSTEM=usb" + '\0' +
                                "DEVTYPE=usb_device" + '\0';
    // The kernel is one of all, and may refuse it after the others have got it.
    forgeEvent(removal, 1, 0);
    EXPECT_TRUE(forgeEvent(removal, 0, gatePid())) << strerror(errno);
    // Handled after it.
    const Plugged other("other", kStick);
    EXPECT_EQ(other.decision().status, 1);
    EXPECT_EQ(stick.decision().status, 1);
}

TEST_F(ClosedGateTest, WhatItCannotStartWithIsOneLine) {
    EXPECT_THAT(shell("kusgate --open 2>&1; echo $?"),
                MatchesRegex("[^\n]*unknown argument --open: usage: kusgate \\[--closed]\n2"));
    EXPECT_THAT(shell("unshare -m sh -c 'mount -t tmpfs none /sys/bus/usb; kusgate 2>&1; echo $?'"),
                MatchesRegex("[^\n]*there is no /sys/bus/usb/devices: [^\n]*\n1"));
}

TEST_F(ClosedGateTest, LostEventsAreMadeUpFor) {
    setRules("whitelist", kNothingAllowed);
    std::optional<Plugged> gone(std::in_place, "gone", kStick);
    const int id = gone->decision().deviceId;
    std::optional<Stopped> gate(gatePid());
    shell(
        "for i in $(seq 3000); do echo change; done >/tmp/changes;"
        "while read -r change; do echo $change >/sys/class/mem/null/uevent; done </tmp/changes");
    gone.reset();
    const Plugged stick("stick", kStick);
    gate.reset();
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_TRUE(eventually([&] { return recorded(id).deviceId == 0; }));
    EXPECT_EQ(shell(std::string("grep -c 'events were lost' ") + kLog), "1");
    stick.expectState(" 0");
}

}  // namespace
}  // namespace android::kus
