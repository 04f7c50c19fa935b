// SPDX-License-Identifier: Apache-2.0
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

constexpr char kLog[] = "/tmp/kusd.log";
constexpr char kTooLarge[] =
    "<usbconfig mode='whitelist'><vid vendorid='1'><pid>2147483648</pid></vid></usbconfig>";

/** The daemon, run by the test instead of by the device's supervisor. */
class CrashTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        setRules("whitelist", "<class>USB_CLASS_MASS_STORAGE</class>");
        good_ = contentOf(configFilePath);
        shell("services stop kusd");
    }

    void TearDown() override {
        daemon_.reset();
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
        EXPECT_EQ(contentOf(statusFilePath), crashStatus);
        EXPECT_THAT(contentOf(kLog), HasSubstr("signum" + std::to_string(signal)));
    }

    void expectDecidesUnderTheGoodRules() {
        startDaemon();
        awaitDaemon();
        EXPECT_TRUE(isAllowed({8}));
        EXPECT_FALSE(isAllowed({1}));
        EXPECT_EQ(contentOf(statusFilePath), "SUCCESS");
    }

    std::string good_;
    std::unique_ptr<Process> daemon_;
};

TEST_F(CrashTest, ACrashRestoresTheRulesAndLogsItsStack) {
    const struct {
        std::function<void()> crash;
        int signal;
        const char* frame;
    } cases[] = {
        // The kernel picks the thread, so the rest of the stack is any thread's.
        {[&] { daemon_->kill(SIGSEGV); }, SIGSEGV, "(android::kus::signalHandler(int, "},
        {[] { writeFile(configFilePath, kTooLarge); }, SIGABRT, "Util::createMapFromConfig("},
        {[] { writeFile(configFilePath, "<?xml version='1.0'?><!-- nothing -->"); }, SIGSEGV,
         "Util::createMapFromConfig("},
    };
    for (const auto& [crash, signal, frame] : cases) {
        SCOPED_TRACE(frame);
        expectDecidesUnderTheGoodRules();
        crash();
        expectRestored(signal);
        EXPECT_THAT(contentOf(kLog), HasSubstr(frame));
    }
    // The same at start-up.
    writeFile(configFilePath, kTooLarge);
    startDaemon();
    expectRestored(SIGABRT);
    expectDecidesUnderTheGoodRules();
}

TEST_F(CrashTest, ACrashInTheMiddleOfAResetGivesTheRoleBack) {
    // Its controller has no role for as long as the reset waits.
    const Plugged adapter("dock", "--vendor 0x17E9 --product 0x6000 --network --port 3");
    const auto role = [] { return contentOf("/sys/devices/platform/soc/a800000.ssusb/mode"); };
    startDaemon();
    awaitDaemon();
    adapter.decision();
    std::thread reset([] { service()->resetUsbDevices(30000); });
    EXPECT_TRUE(eventually([&] { return role() == "none"; }));
    daemon_->kill(SIGSEGV);
    expectRestored(SIGSEGV);
    reset.join();
    EXPECT_EQ(role(), "host");
}

TEST_F(CrashTest, AHandlerThatHangsEndsAllTheSame) {
    shell(std::string("rm -f ") + kLog + "; mkfifo " + kLog);
    const base::unique_fd log(open(kLog, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    startDaemon();
    awaitDaemon();
    // Nobody takes what it logs now, and there is no room for more.
    while (write(log.get(), "", 1) == 1) continue;
    daemon_->kill(SIGSEGV);
    EXPECT_TRUE(daemon_->ends()) << "it hangs";
    daemon_->kill(SIGKILL);
    EXPECT_EQ(daemon_->exitStatus(), -SIGALRM);
    unlink(kLog);
    expectDecidesUnderTheGoodRules();
}

}  // namespace
}  // namespace android::kus
