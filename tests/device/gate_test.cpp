// SPDX-License-Identifier: Apache-2.0

// The gate with --closed, as far as it takes the kernel itself. What must never happen is recorded
// by the kernel, so that nothing happens between two looks.
#include <android-base/strings.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "device_test.h"

namespace android::kus {
namespace {

constexpr char kOptions[] = "/system/etc/kusgate.options";
constexpr char kLog[] = "/data/log/kusgate.log";
constexpr char kNothingAllowed[] = "<class>USB_CLASS_AUDIO</class>";
constexpr char kReauthorizeHub[] =
    "cd /sys/bus/usb/devices/1-1; echo 0 >authorized; usleep 200000; echo 1 >authorized";
constexpr char kOpenBuses[] = "echo 1 | tee /sys/bus/usb/devices/usb*/interface_authorized_default";

pid_t gatePid() { return stoi(shell("services pid kusgate")); }

void startRecording() { shell(". /system/etc/exposure.sh; start_recording"); }

/** How often interfaces of these devices have been "bound" to a driver since, or "unbound". */
int countOf(const std::string& event, const Texts& devices) {
    const std::string names = android::base::Join(devices, '|');
    return stoi(shell("grep -cE ' " + event + ": .*=\"(" + names +
                      "):' /sys/kernel/tracing/trace || true"));
}

/** One device of each kind: four of the virtual controllers', and one behind a hub. */
class EachKind {
  public:
    Texts entries() const {
        return {stick_.entry(), network_.entry(), serial_.entry(), both_.entry(), "1-1.3"};
    }

    /** Of each interface, in this order. */
    Texts states() const {
        Texts all;
        for (const std::string& entry : entries()) {
            const Texts states = statesOf(entry);
            all.insert(all.end(), states.begin(), states.end());
        }
        return all;
    }

    /** Whether the service has decided so on each of them, as they are now. */
    bool areDecided(int status) const {
        for (const int id : ids()) {
            const DeviceInfo device = recorded(id);
            if (id == 0 || device.deviceId != id || device.status != status) return false;
        }
        return true;
    }

    /** Takes all of them away and brings them back, as new devices for the kernel. */
    void comeAgain() const {
        const auto areNew = AllOf(Each(Ne(0)), Pointwise(Ne(), ids()));
        shell("printf none | tee /sys/devices/platform/soc/*/mode");
        shell(kReauthorizeHub);
        shell("printf host | tee /sys/devices/platform/soc/*/mode");
        EXPECT_TRUE(eventually([&] { return testing::Value(ids(), areNew); }));
    }

    /** As any program can do it that has the device node open. */
    void configureAnew() const {
        for (const std::string& entry : entries()) {
            shell("cd /sys/bus/usb/devices/" + entry +
                  "; echo 0 >bConfigurationValue; echo 1 >bConfigurationValue");
        }
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

class ClosedGateTest : public DeviceTest {
  protected:
    static void SetUpTestSuite() {
        shell(std::string("echo --closed >") + kOptions + "; services start kusgate");
    }

    static void TearDownTestSuite() {
        shell(kOpenBuses);
        shell(std::string("services stop kusgate; rm ") + kOptions);
        shell(kReauthorizeHub);
        shell("services start kusgate");
    }

    void TearDown() override { shell("services start kusd kusgate"); }
};

TEST_F(ClosedGateTest, RefusedDevicesNeverGetADriver) {
    setRules("whitelist", kNothingAllowed);
    const EachKind devices;
    // When it comes again this one calls itself a hub, and is none.
    shell("echo 9 >/sys/kernel/config/usb_gadget/stick/bDeviceClass");
    devices.comeAgain();
    EXPECT_TRUE(eventually([&] { return devices.areDecided(0); }));
    startRecording();
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"the devices come while the daemon is up", [&] { devices.comeAgain(); }},
        {"they come while it is away",
         [&] {
             shell("services stop kusd");
             devices.comeAgain();
             shell("services start kusd");
         }},
        {"it resets the controllers", [] { service()->resetUsbDevices(0); }},
        {"their configurations are set again", [&] { devices.configureAnew(); }}};
    for (const auto& [text, happens] : cases) {
        SCOPED_TRACE(text);
        happens();
        EXPECT_TRUE(eventually([&] { return devices.areDecided(0); }));
        EXPECT_EQ(countOf("bound", devices.entries()), 0);
        EXPECT_THAT(devices.states(), AllOf(SizeIs(8), Each(" 0")));
    }
}

TEST_F(ClosedGateTest, AllowedDevicesWorkAndStayOpenAcrossRestarts) {
    const Texts open = {"usb-storage 1", "cdc_ether 1",   "cdc_ether 1", "cdc_acm 1",
                        "cdc_acm 1",     "usb-storage 1", "usbhid 1",    "ftdi_sio 1"};
    const EachKind devices;
    devices.comeAgain();
    EXPECT_TRUE(eventually([&] {
        return devices.states() == open && devices.areDecided(1) && sticks() == 2 &&
               std::filesystem::exists("/sys/class/net/usb0") &&
               std::filesystem::exists("/dev/ttyACM0");
    })) << testing::PrintToString(devices.states());
    startRecording();
    for (const char* service : {"kusd", "kusgate", "servicemanager"}) {
        const std::string allowed = std::string("grep -c 'allowed 1-1.3' ") + kLog;
        const int answers = stoi(shell(allowed));
        shell(std::string("kill -KILL $(services pid ") + service + ")");
        EXPECT_TRUE(eventually([&] { return stoi(shell(allowed)) > answers; })) << service;
    }
    EXPECT_EQ(countOf("unbound", devices.entries()), 0);
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
    daemon.reset();
    EXPECT_TRUE(eventually([&] { return !isSilenced(); }));
}

// Without its drivers it looks like a keyboard, so it is open for the one question with them.
TEST_F(ClosedGateTest, ARefusedVendorHidIsOpenUntilItsAnswerAlone) {
    setRules("whitelist", kNothingAllowed);
    Plugged hid("hid", "--vendor 1678 --product 8 --vendor-hid");
    EXPECT_EQ(hid.decision().status, 0);
    hid.expectState(" 0");
    startRecording();
    hid.replug();
    EXPECT_EQ(hid.decision().status, 0);
    hid.expectState(" 0");
    EXPECT_EQ(countOf("(un)?bound", {hid.entry()}), 2) << "not opened just once";
    startRecording();
    shell("services stop kusd");
    hid.replug();
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(countOf("(un)?bound", {hid.entry()}), 0);
}

TEST_F(ClosedGateTest, WhatTheKernelHasOpenedIsClosedUntilItsAnswer) {
    shell("services stop kusd kusgate");
    shell(kOpenBuses);
    const Plugged stick("stick", kStick);
    stick.expectState("usb-storage 1");
    shell("services start kusgate");
    stick.expectState(" 0");
    shell("services start kusd");
    stick.expectState("usb-storage 1");
}

TEST_F(ClosedGateTest, LostEventsAreMadeUpFor) {
    setRules("whitelist", kNothingAllowed);
    std::optional<Stopped> gate(gatePid());
    shell(
        "for i in $(seq 3000); do echo change; done >/tmp/changes;"
        "while read -r change; do echo $change >/sys/class/mem/null/uevent; done </tmp/changes");
    const Plugged stick("stick", kStick);
    gate.reset();
    EXPECT_EQ(stick.decision().status, 0);
    EXPECT_EQ(shell(std::string("grep -c 'events were lost' ") + kLog), "1");
    stick.expectState(" 0");
}

}  // namespace
}  // namespace android::kus
