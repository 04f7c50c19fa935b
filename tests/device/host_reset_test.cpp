// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <thread>

#include "device_test.h"

namespace android::kus {
namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kPower = "/sys/class/power_supply/";

std::string monitorProperties() {
    return shell(
        "for p in undock dock reset; do getprop persist.vendor.monitor.$p; done | tr -d '\\n'");
}

class HostResetTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        setPower("0", "0");
        for (const char* property : {"undock", "dock", "reset"}) {
            shell(std::string("rm -f /dev/__properties__/persist.vendor.monitor.") + property);
        }
    }

    void TearDown() override { setPower("0", "0"); }

    void setPower(const std::string& dc, const std::string& usb) {
        writeFile(kPower + "dc/online", dc + "\n");
        writeFile(kPower + "usb/online", usb + "\n");
    }
};

TEST_F(HostResetTest, ADockedDeviceIsUndockedAndDockedVirtually) {
    setPower("1", "0");
    const auto start = steady_clock::now();
    std::thread reset([] { service()->resetUsbDevices(3000); });
    EXPECT_TRUE(eventually([] { return monitorProperties() == "11"; }, 2s)) << "undock and reset";
    EXPECT_EQ(shell("getprop persist.vendor.monitor.dock"), "");
    reset.join();
    EXPECT_GE(steady_clock::now() - start, 3s);
    EXPECT_EQ(monitorProperties(), "111");
}

TEST_F(HostResetTest, RulesDoNotWaitForAResetThatIsUnderWay) {
    setPower("1", "0");
    RoleWatch roles;
    std::thread reset([] { service()->resetUsbDevices(10000); });
    EXPECT_TRUE(eventually([] { return monitorProperties() == "11"; }, 3s));
    for (int i = 0; i < 3; ++i) Rules::rewrite();
    EXPECT_EQ(monitorProperties(), "11") << "accepted only after the reset";
    EXPECT_THAT(roles.writes(0), IsEmpty()) << "two resets at a time";
    reset.join();
    EXPECT_EQ(roles.writes(4), oneToggle()) << "those that waited are done once";
}

TEST_F(HostResetTest, ADisplayLinkAdaptersControllerComesBackOnlyWithPower) {
    // The root hub of this port says in its devspec that it belongs to a800000.ssusb.
    const Plugged adapter("dock", "--vendor 0x17E9 --product 0x6000 --network --port 3");
    EXPECT_EQ(adapter.decision().status, 1);
    for (const auto& [dc, usb] : {std::pair("0", "1"), std::pair("1", "0"), std::pair("0", "0")}) {
        setPower(dc, usb);
        RoleWatch roles;
        service()->resetUsbDevices(500);
        if (dc[0] == '0' && usb[0] == '0') {
            EXPECT_THAT(roles.writes(1), ElementsAre("ssusb none"));
        } else {
            EXPECT_THAT(roles.writes(2), ElementsAre("ssusb none", "ssusb host"));
            EXPECT_EQ(adapter.decision().status, 1);
        }
    }
    EXPECT_EQ(monitorProperties(), "");
    shell("printf host >/sys/devices/platform/soc/a800000.ssusb/mode");
    EXPECT_EQ(adapter.decision().status, 1);
}

TEST_F(HostResetTest, ResetsTakeTurnsAndDecisionsGoOn) {
    RoleWatch roles;
    std::thread first([] { service()->resetUsbDevices(0); });
    std::thread second([] { service()->resetUsbDevices(0); });
    const auto start = steady_clock::now();
    EXPECT_TRUE(isAllowed({8}));
    EXPECT_LT(steady_clock::now() - start, 700ms) << "the decision waited for the resets";
    std::vector<std::string> twice = oneToggle();
    for (const std::string& write : oneToggle()) twice.push_back(write);
    EXPECT_EQ(roles.writes(8), twice);
    first.join();
    second.join();
}

}  // namespace
}  // namespace android::kus
