// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <signal.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using std::this_thread::sleep_for;
using testing::HasSubstr;

constexpr char kLog[] = "/tmp/kusd.log";
constexpr char kCrashStatus[] = "Unable to apply the USB Admin config rules";
constexpr char kStorageAllowed[] = "<class>USB_CLASS_MASS_STORAGE</class>";

/** The daemon, run by the test instead of by the device's supervisor. */
class CrashTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        setRules("whitelist", kStorageAllowed);
        good_ = contentOf(configFilePath);
        shell("services stop kusd");
    }

    void TearDown() override {
        daemon_.reset();
        // A daemon that ends in the middle of a reset leaves its controller without a role.
        shell("for mode in /sys/devices/platform/soc/*/mode; do printf host >$mode; done");
        shell("services start kusd");
    }

    void startDaemon() {
        daemon_ = std::make_unique<Process>(
            std::vector<std::string>{"sh", "-c", std::string("exec kusd 2>") + kLog});
    }

    void expectRestored(int signal) {
        EXPECT_EQ(daemon_->exitStatus(), signal);
        EXPECT_EQ(contentOf(configFilePath), good_);
        EXPECT_EQ(contentOf(backupFilePath), good_);
        EXPECT_EQ(contentOf(statusFilePath), kCrashStatus);
        EXPECT_THAT(contentOf(kLog), HasSubstr("signum" + std::to_string(signal)));
    }

    void expectDecidesUnderTheRestoredRules() {
        startDaemon();
        awaitDaemon();
        EXPECT_TRUE(isAllowed({8}));
        EXPECT_FALSE(isAllowed({1}));
        EXPECT_EQ(contentOf(statusFilePath), "SUCCESS");
    }

    std::string good_;
    std::unique_ptr<Process> daemon_;
};

TEST_F(CrashTest, ASignalRestoresTheRules) {
    for (const int signal : {SIGSEGV, SIGABRT}) {
        startDaemon();
        awaitDaemon();
        EXPECT_TRUE(isAllowed({8}));
        daemon_->kill(signal);
        expectRestored(signal);
        // The kernel picks the thread, so the rest of the stack is any thread's.
        EXPECT_THAT(contentOf(kLog), HasSubstr("(android::kus::signalHandler(int, "));
    }
    expectDecidesUnderTheRestoredRules();
}

TEST_F(CrashTest, RulesThatEndTheDaemonAreRestored) {
    const struct {
        const char* rules;
        int signal;
    } cases[] = {
        {"<usbconfig mode='whitelist'><vid vendorid='99999999999'/></usbconfig>", SIGABRT},
        {"<usbconfig mode='whitelist'><vid vendorid='1'><pid>2147483648</pid></vid></usbconfig>",
         SIGABRT},
        {"<?xml version='1.0'?><!-- nothing -->", SIGSEGV},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.rules);
        startDaemon();
        awaitDaemon();
        EXPECT_TRUE(isAllowed({8}));
        writeFile(configFilePath, bad.rules);
        expectRestored(bad.signal);
        EXPECT_THAT(contentOf(kLog), HasSubstr("android::kus::Util::createMapFromConfig("));
    }
    // The same at start-up.
    writeFile(configFilePath, cases[0].rules);
    startDaemon();
    expectRestored(SIGABRT);
    expectDecidesUnderTheRestoredRules();
}

TEST_F(CrashTest, ARefusedRegistrationRestoresTheRules) {
    shell("services stop usb_host_stack servicemanager");
    {
        Process refusing({"refusing_service_manager"});
        ASSERT_EQ(refusing.line(), "refusing");
        startDaemon();
        expectRestored(SIGABRT);
        EXPECT_THAT(contentOf(kLog), HasSubstr("Could not register KUS"));
        EXPECT_THAT(contentOf(kLog), HasSubstr("android::kus::KUsbService::Register()"));
    }
    shell("services start servicemanager usb_host_stack");
}

std::string stateOf(const std::string& path, const std::vector<std::string>& whole) {
    const std::string content = contentOf(path);
    if (content.empty()) return "empty";
    return std::find(whole.begin(), whole.end(), content) != whole.end() ? "whole" : "torn";
}

TEST_F(CrashTest, AKilledDaemonAlwaysStartsAgain) {
    const std::string allowing = rulesText("whitelist", kStorageAllowed);
    const std::string refusing = rulesText("blacklist", kStorageAllowed);
    const std::vector<std::string> texts = {base::Trim(allowing), base::Trim(refusing), "<broken"};
    std::mt19937 random(1);
    std::map<std::string, int> states;
    for (int i = 0; i < (fullRun() ? 50 : 8); ++i) {
        startDaemon();
        awaitDaemon();
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 400);
        while (std::chrono::steady_clock::now() < end) {
            writeFile(configFilePath, random() % 3 == 0 ? "<broken"
                                      : random() % 2    ? allowing
                                                        : refusing);
            sleep_for(std::chrono::milliseconds(random() % 40));
        }
        daemon_->kill(SIGKILL);
        EXPECT_EQ(daemon_->exitStatus(), -SIGKILL);
        ++states["rules " + stateOf(configFilePath, texts)];
        ++states["backup " + stateOf(backupFilePath, texts)];
        ++states[contentOf(statusFilePath).empty() ? "status empty" : "status whole"];
    }
    for (const auto& [state, times] : states)
        printf("found after SIGKILL: %s %d times\n", state.c_str(), times);
    writeFile(configFilePath, allowing);
    startDaemon();
    awaitDaemon();
    EXPECT_TRUE(isAllowed({8}));
}

}  // namespace
}  // namespace android::kus
