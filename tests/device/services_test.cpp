// SPDX-License-Identifier: Apache-2.0

// The virtual device's own part: what the kernel does for the services of a real one.
#include "device_test.h"

namespace android::kus {
namespace {

class ServicesTest : public DeviceTest {};

TEST_F(ServicesTest, ARoleIsFollowedAsSoonAsTheRoleSwitchCountsAsStarted) {
    const Plugged stick("stick", std::string(kStick) + " --port 0");
    const int before = stick.id();
    shell(
        "services start role_switch; cd /sys/devices/platform/soc/c200000.hsusb;"
        "printf none >mode; usleep 100000; printf host >mode");
    EXPECT_TRUE(eventually([&] { return stick.id() != before && stick.id() != 0; }, 10s));
    // What was written while nobody watched.
    shell(
        "services stop role_switch; cd /sys/devices/platform/soc/c200000.hsusb;"
        "printf none >mode; services start role_switch");
    EXPECT_TRUE(eventually([&] { return stick.id() == 0; }, 10s));
    shell("printf host >/sys/devices/platform/soc/c200000.hsusb/mode");
    EXPECT_EQ(stick.decision().reason, "Enabled by default rule");
}

}  // namespace
}  // namespace android::kus
