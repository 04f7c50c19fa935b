// SPDX-License-Identifier: Apache-2.0

// The gate with --closed. What must never happen is watched in the kernel's events, so that nothing
// happens between two looks.
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/uinput.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <thread>

#include "device_test.h"
#include "gate/kernel_events.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using testing::AllOf;
using testing::Each;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using Clock = std::chrono::steady_clock;

const std::string kUsbDevices = "/sys/bus/usb/devices/";
constexpr char kOptions[] = "/system/etc/kusgate.options";
constexpr char kLog[] = "/data/log/kusgate.log";
constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr char kNothingAllowed[] = "<class>USB_CLASS_AUDIO</class>";
const std::string kBehindTheHub = "1-1.3";

/** The kernel's events about USB interfaces, from the first use on. */
class KernelWatch {
  public:
    struct Seen {
        std::string action;
        std::string interface;
        Clock::time_point when;
    };

    static KernelWatch& get() {
        static KernelWatch& watch = *new KernelWatch;
        return watch;
    }

    /** Everything that came since the last call, up to what has happened now. */
    std::vector<Seen> take() {
        const int before = marks_;
        EXPECT_TRUE(eventually([&] {
            writeFile("/sys/class/mem/null/uevent", "change");
            return marks_ != before;
        }));
        const std::lock_guard guard(lock_);
        EXPECT_FALSE(std::exchange(lost_, false)) << "events were lost";
        return std::exchange(seen_, {});
    }

    /** Those of the interfaces of these devices that had this happen since the last call. */
    std::vector<std::string> take(const std::string& action,
                                  const std::vector<std::string>& devices) {
        std::vector<std::string> interfaces;
        for (const Seen& seen : take()) {
            const std::string device = seen.interface.substr(0, seen.interface.find(':'));
            const bool wanted = std::find(devices.begin(), devices.end(), device) != devices.end();
            if (wanted && seen.action == action) interfaces.push_back(seen.interface);
        }
        return interfaces;
    }

  private:
    KernelWatch() {
        std::thread([this] {
            while (true) record(events_.receive());
        }).detach();
    }

    void record(const std::optional<KernelEvent>& event) {
        const std::lock_guard guard(lock_);
        if (!event) {
            lost_ = true;
        } else if (event->subsystem == "mem") {
            ++marks_;
        } else if (event->devtype == "usb_interface") {
            seen_.push_back({event->action, event->name, Clock::now()});
        }
    }

    KernelEvents events_;
    std::atomic<int> marks_ = 0;
    std::mutex lock_;
    bool lost_ = false;
    std::vector<Seen> seen_;
};

/** Keeps a process from running for as long as it lives. */
class Hung {
  public:
    explicit Hung(pid_t pid) : pid_(pid) { kill(pid_, SIGSTOP); }
    ~Hung() { kill(pid_, SIGCONT); }

  private:
    const pid_t pid_;
};

pid_t gatePid() { return stoi(shell("services pid kusgate")); }

int idOf(const std::string& entry) {
    const std::string number = contentOf(kUsbDevices + entry + "/devnum");
    return number.empty() ? 0 : atoi(entry.c_str()) * 1000 + stoi(number);
}

/** Whether the service has decided so on each of them, as they are now. */
bool areDecided(const std::vector<std::string>& entries, int status) {
    return std::all_of(entries.begin(), entries.end(), [&](const std::string& entry) {
        const int id = idOf(entry);
        const DeviceInfo device = recorded(id);
        return id != 0 && device.deviceId == id && device.status == status;
    });
}

/** "usb-storage 1" for an interface with this driver that is authorized, " 0" for a closed one. */
std::string stateOf(const std::string& interface) {
    std::error_code unbound;
    const auto driver = std::filesystem::read_symlink(kUsbDevices + interface + "/driver", unbound);
    return driver.filename().string() + " " + contentOf(kUsbDevices + interface + "/authorized");
}

void switchRoles(const std::string& role) {
    shell("for mode in /sys/devices/platform/soc/*/mode; do printf " + role + " >$mode; done");
}

/** One device of each kind: four of the virtual controllers', and one behind a hub. */
class EachKind {
  public:
    std::vector<std::string> entries() const {
        return {stick_.entry(), network_.entry(), serial_.entry(), both_.entry(), kBehindTheHub};
    }

    /** Of each interface, in this order. */
    std::vector<std::string> states() const {
        std::vector<std::string> states;
        for (const std::string& entry : entries()) {
            for (int i = 0; std::filesystem::exists(kUsbDevices + interface(entry, i)); ++i) {
                states.push_back(stateOf(interface(entry, i)));
            }
        }
        return states;
    }

    /** Takes all of them away and brings them back, as new devices for the kernel. */
    void comeAgain() const {
        const std::vector<int> before = ids();
        switchRoles("none");
        const std::string hub = kUsbDevices + "1-1/authorized";
        shell("echo 0 >" + hub + "; usleep 200000; echo 1 >" + hub);
        switchRoles("host");
        EXPECT_TRUE(eventually([&] {
            const std::vector<int> now = ids();
            for (size_t i = 0; i < now.size(); ++i) {
                if (now[i] == 0 || now[i] == before[i]) return false;
            }
            return true;
        }));
    }

  private:
    static std::string interface(const std::string& entry, int number) {
        return entry + ":1." + std::to_string(number);
    }

    std::vector<int> ids() const {
        std::vector<int> ids;
        for (const std::string& entry : entries()) ids.push_back(idOf(entry));
        return ids;
    }

    const Plugged stick_{"stick", kStick};
    const Plugged network_{"network", "--vendor 3034 --product 1 --network"};
    const Plugged serial_{"serial", "--vendor 1155 --product 22336 --serial"};
    const Plugged both_{"both", "--vendor 2385 --product 5735 --storage --keyboard"};
};

/** A keyboard that says that it is on USB. */
class Keyboard {
  public:
    Keyboard() : device_(open("/dev/uinput", O_WRONLY | O_CLOEXEC)) {
        uinput_setup setup = {};
        setup.id = {BUS_USB, 1133, 49948, 1};
        strcpy(setup.name, "keys");
        char name[16];
        EXPECT_TRUE(ioctl(device_.get(), UI_SET_EVBIT, EV_KEY) == 0 &&
                    ioctl(device_.get(), UI_SET_KEYBIT, KEY_A) == 0 &&
                    ioctl(device_.get(), UI_DEV_SETUP, &setup) == 0 &&
                    ioctl(device_.get(), UI_DEV_CREATE) == 0 &&
                    ioctl(device_.get(), UI_GET_SYSNAME(sizeof(name)), name) > 0);
        directory_ = std::string("/sys/class/input/") + name;
    }

    bool isSilenced() const { return contentOf(directory_ + "/inhibited") == "1"; }

    /** Presses and lets go of a key: whether anything of that arrives. */
    bool reachesReaders() const {
        const std::string node = shell("basename " + directory_ + "/event*");
        const base::unique_fd reader(
            open(("/dev/input/" + node).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(reader.ok()) << node;
        for (const int value : {1, 0}) {
            send(EV_KEY, KEY_A, value);
            send(EV_SYN, SYN_REPORT, 0);
        }
        input_event event;
        return read(reader.get(), &event, sizeof(event)) > 0;
    }

  private:
    void send(int type, int code, int value) const {
        input_event event = {};
        event.type = type;
        event.code = code;
        event.value = value;
        EXPECT_EQ(write(device_.get(), &event, sizeof(event)), static_cast<ssize_t>(sizeof(event)));
    }

    const base::unique_fd device_;
    std::string directory_;
};

/** Sends a text as the kernel would, to all who listen and to one of them. */
void forgeEvent(const std::string& text, pid_t to) {
    const base::unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
    const auto send = [&](unsigned group, unsigned port) {
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_groups = group;
        address.nl_pid = port;
        return sendto(fd.get(), text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&address),
                      sizeof(address));
    };
    // The kernel is one of all, and may refuse it after the others have got it.
    send(1, 0);
    EXPECT_EQ(send(0, to), static_cast<ssize_t>(text.size())) << strerror(errno);
}

class ClosedGateTest : public DeviceTest {
  protected:
    static void SetUpTestSuite() {
        options_ = contentOf(kOptions);
        shell(std::string("echo --closed >") + kOptions + "; services start kusgate");
        kernel_ = &KernelWatch::get();
    }

    static void TearDownTestSuite() {
        if (options_ == "--closed") return;
        setBuses("1");
        const std::string hub = kUsbDevices + "1-1/authorized";
        shell(std::string("services stop kusgate; rm ") + kOptions + "; echo 0 >" + hub +
              "; echo 1 >" + hub + "; services start kusgate");
    }

    void SetUp() override {
        DeviceTest::SetUp();
        EXPECT_TRUE(eventually([] { return areDecided({kBehindTheHub}, 1); }));
    }

    void TearDown() override {
        shell("services start kusd kusgate");
        switchRoles("host");
    }

    static void setBuses(const std::string& value) {
        shell("for bus in " + kUsbDevices + "usb*; do echo " + value +
              " >$bus/interface_authorized_default; done");
    }

    static KernelWatch* kernel_;

  private:
    static std::string options_;
};

KernelWatch* ClosedGateTest::kernel_;
std::string ClosedGateTest::options_;

TEST_F(ClosedGateTest, RefusedDevicesNeverGetADriver) {
    setRules("whitelist", kNothingAllowed);
    const EachKind devices;
    kernel_->take();
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"the daemon is up", [&] { devices.comeAgain(); }},
        {"it hangs",
         [&] {
             const Hung daemon(daemonPid());
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
        happens();
        EXPECT_TRUE(eventually([&] { return areDecided(devices.entries(), 0); }));
        EXPECT_THAT(kernel_->take("bind", devices.entries()), IsEmpty());
        EXPECT_THAT(devices.states(), AllOf(SizeIs(8), Each(" 0")));
    }
}

TEST_F(ClosedGateTest, AllowedDevicesWorkAndStayOpenAcrossRestarts) {
    const EachKind devices;
    const auto work = [&] {
        return devices.states() == std::vector<std::string>{"usb-storage 1", "cdc_ether 1",
                                                            "cdc_ether 1",   "cdc_acm 1",
                                                            "cdc_acm 1",     "usb-storage 1",
                                                            "usbhid 1",      "ftdi_sio 1"};
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(eventually(work)) << testing::PrintToString(devices.states());
        EXPECT_TRUE(eventually([&] {
            return areDecided(devices.entries(), 1) && sticks().size() == 2 &&
                   std::filesystem::exists("/sys/class/net/usb0") &&
                   std::filesystem::exists("/dev/ttyACM0");
        }));
        devices.comeAgain();
    }
    EXPECT_TRUE(eventually(work));
    EXPECT_TRUE(eventually([&] { return areDecided(devices.entries(), 1); }));
    kernel_->take();
    for (const char* service : {"kusd", "kusgate", "servicemanager"}) {
        const std::string allowed = std::string("grep -c 'allowed 1-1.3' ") + kLog;
        const int answers = stoi(shell(allowed));
        shell(std::string("kill -KILL $(services pid ") + service + ")");
        EXPECT_TRUE(eventually([&] { return stoi(shell(allowed)) > answers; })) << service;
    }
    EXPECT_THAT(kernel_->take("unbind", devices.entries()), IsEmpty());
}

TEST_F(ClosedGateTest, AnInputDeviceIsSilentUntilItsAnswer) {
    std::optional<Hung> daemon(daemonPid());
    const Keyboard keyboard;
    EXPECT_TRUE(eventually([&] { return keyboard.isSilenced(); }));
    EXPECT_FALSE(keyboard.reachesReaders());
    daemon.reset();
    EXPECT_TRUE(eventually([&] { return !keyboard.isSilenced(); }));
    EXPECT_TRUE(keyboard.reachesReaders());
}

// Without its drivers it looks like a keyboard, so it is open for the one question with them.
TEST_F(ClosedGateTest, ARefusedVendorHidIsOpenUntilItsAnswerAlone) {
    setRules("whitelist", kNothingAllowed);
    Plugged hid("hid", "--vendor 1678 --product 8 --vendor-hid");
    const std::string interface = hid.entry() + ":1.0";
    std::vector<double> milliseconds;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(hid.decision().status, 0);
        EXPECT_TRUE(eventually([&] { return stateOf(interface) == " 0"; }));
        std::optional<Clock::time_point> opened;
        for (const KernelWatch::Seen& seen : kernel_->take()) {
            if (seen.interface != interface) continue;
            if (seen.action == "bind") opened = seen.when;
            if (seen.action != "unbind" || !opened) continue;
            milliseconds.push_back(
                std::chrono::duration<double, std::milli>(seen.when - *opened).count());
        }
        hid.replug();
    }
    ASSERT_THAT(milliseconds, SizeIs(5)) << "not opened once for each time";
    std::sort(milliseconds.begin(), milliseconds.end());
    RecordProperty("milliseconds_open", std::to_string(milliseconds[2]));
    printf("a refused vendor-specific HID: open for %.0f ms (%.0f to %.0f)\n", milliseconds[2],
           milliseconds.front(), milliseconds.back());

    // Whatever the daemon has been asked when it goes.
    for (int i = 0; i < 5; ++i) {
        hid.replug();
        std::this_thread::sleep_for(50ms * i);
        shell("services stop kusd");
        EXPECT_TRUE(eventually([&] { return stateOf(interface) == " 0"; }));
        shell("services start kusd");
        EXPECT_EQ(hid.decision().status, 0);
    }
    shell("services stop kusd");
    kernel_->take();
    hid.replug();
    std::this_thread::sleep_for(1s);
    EXPECT_THAT(kernel_->take("bind", {hid.entry()}), IsEmpty());
}

TEST_F(ClosedGateTest, WhatTheKernelHasOpenedIsClosedUntilItsAnswer) {
    shell("services stop kusd kusgate");
    setBuses("1");
    Plugged stick("stick", kStick);
    EXPECT_EQ(stick.interfaceState(0), "usb-storage 1");
    shell("services start kusgate");
    EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }));
    kernel_->take();
    stick.replug();
    std::this_thread::sleep_for(1s);
    EXPECT_THAT(kernel_->take("bind", {stick.entry()}), IsEmpty());
    shell("services start kusd");
    EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == "usb-storage 1"; }));
}

TEST_F(ClosedGateTest, ADeviceThatCallsItselfAHubIsAskedAbout) {
    setRules("whitelist", kNothingAllowed);
    Plugged stick("stick", kStick);
    shell("echo 9 >/sys/kernel/config/usb_gadget/stick/bDeviceClass");
    kernel_->take();
    stick.replug();
    EXPECT_EQ(contentOf(kUsbDevices + stick.entry() + "/bDeviceClass"), "09");
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_THAT(kernel_->take("bind", {stick.entry()}), IsEmpty());
}

TEST_F(ClosedGateTest, OnlyTheKernelIsBelieved) {
    const Plugged stick("stick", kStick);
    EXPECT_EQ(stick.decision().status, 1);
    const std::string path = "/devices/x/" + stick.entry();
    forgeEvent("remove@" + path + '\0' + "ACTION=remove" + '\0' + "DEVPATH=" + path + '\0' +
                   "SUBSYSTEM=usb" + '\0' + "DEVTYPE=usb_device" + '\0',
               gatePid());
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
    std::optional<Hung> gate(gatePid());
    shell(
        "for i in $(seq 3000); do echo change; done >/tmp/changes;"
        "while read -r change; do echo $change >/sys/class/mem/null/uevent; done </tmp/changes");
    gone.reset();
    const Plugged stick("stick", kStick);
    gate.reset();
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_TRUE(eventually([&] { return recorded(id).deviceId == 0; }));
    EXPECT_EQ(shell(std::string("grep -c 'events were lost' ") + kLog), "1");
    EXPECT_EQ(stick.interfaceState(0), " 0");
}

}  // namespace
}  // namespace android::kus
