// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include <chrono>
#include <thread>

#include "device_test.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::StartsWith;
using std::chrono::steady_clock;

constexpr char kStorageAllowed[] = "<class>USB_CLASS_MASS_STORAGE</class>";
constexpr char kStorageRefused[] = "<class>USB_CLASS_AUDIO</class>";
constexpr char kDcOnline[] = "/sys/class/power_supply/dc/online";

class LiveRulesTest : public DeviceTest {};

TEST_F(LiveRulesTest, AGoodRewriteDecidesAttachedDevicesAgainAndABadOneDoesNot) {
    setRules("whitelist", kStorageAllowed);
    // One of each controller.
    const Plugged attached[] = {{"first", std::string(kStick) + " --port 0"},
                                {"second", std::string(kStick) + " --port 3"}};
    for (const bool allowed : {false, true}) {
        const int ids[] = {attached[0].decision().deviceId, attached[1].decision().deviceId};
        const std::string good = contentOf(configFilePath);
        writeFile(configFilePath, "<usbconfig mode='blacklist'><foo/></usbconfig>");
        EXPECT_TRUE(eventually([&] { return contentOf(statusFilePath) == "INVALID TAG:foo"; }));
        EXPECT_TRUE(eventually([&] { return contentOf(configFilePath) == good; }));
        EXPECT_EQ(isAllowed({8}), !allowed);
        EXPECT_EQ(attached[0].id(), ids[0]);

        setRules("whitelist", allowed ? kStorageAllowed : kStorageRefused);
        EXPECT_EQ(contentOf(backupFilePath), contentOf(configFilePath));
        for (const int i : {0, 1}) {
            EXPECT_TRUE(eventually([&] {
                return attached[i].id() != 0 && attached[i].id() != ids[i];
            })) << "not enumerated again";
            EXPECT_EQ(attached[i].decision().status, allowed);
            attached[i].expectState(allowed ? "usb-storage 1" : " 0");
            EXPECT_TRUE(eventually([&] { return recorded(ids[i]).deviceId == 0; }))
                << "the old record stays";
        }
    }
}

TEST_F(LiveRulesTest, RulesDoNotWaitForAResetThatIsUnderWay) {
    const auto docked = [] { return shell("getprop persist.vendor.monitor.dock"); };
    shell("for p in dock reset; do setprop persist.vendor.monitor.$p ''; done");
    writeFile(kDcOnline, "1\n");
    std::thread reset([] { service()->resetUsbDevices(15000); });
    EXPECT_TRUE(eventually([] { return shell("getprop persist.vendor.monitor.reset") == "1"; }));
    // The first one's reset has to wait.
    for (int i = 0; i < 2; ++i) Rules::rewrite();
    EXPECT_EQ(docked(), "") << "accepted only after the reset";
    reset.join();
    EXPECT_EQ(docked(), "1");
    EXPECT_TRUE(eventually(isSettled));
    writeFile(kDcOnline, "0\n");
}

TEST_F(LiveRulesTest, WithoutABackupABadFileIsEmptiedAndDecisionsGoOn) {
    setRules("whitelist", kStorageAllowed);
    const std::string good = contentOf(configFilePath);
    const auto timeOfDecisions = [] {
        const auto start = steady_clock::now();
        for (int i = 0; i < 20; ++i) isAllowed({8});
        return steady_clock::now() - start;
    };
    const auto usual = timeOfDecisions();
    shell(std::string("rm ") + backupFilePath);
    writeFile(configFilePath, "<broken");
    EXPECT_TRUE(eventually(
        [] { return StartsWith(contentOf(statusFilePath), "Error=XML_ERROR_EMPTY_DOCUMENT"); }));
    EXPECT_EQ(contentOf(configFilePath), "");
    EXPECT_FALSE(isAllowed({8})) << "no rule is in force";
    EXPECT_LT(timeOfDecisions(), usual + 10s) << "each waited for rules that stay";
    // A backup ends it: the next restore finds it.
    writeFile(backupFilePath, good + "\n");
    EXPECT_TRUE(eventually([&] { return contentOf(configFilePath) == good && isAllowed({8}); }));
}

}  // namespace
}  // namespace android::kus
