// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
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
        giveRolesBack();
        shell("services start kusd");
    }

    // A daemon that is killed in the middle of a reset leaves its controller without a role.
    void giveRolesBack() {
        shell("for mode in /sys/devices/platform/soc/*/mode; do printf host >$mode; done");
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
    shell("services stop kusgate servicemanager");
    {
        Process refusing({"refusing_service_manager"});
        ASSERT_EQ(refusing.line(), "refusing");
        startDaemon();
        expectRestored(SIGABRT);
        EXPECT_THAT(contentOf(kLog), HasSubstr("Could not register KUS"));
        EXPECT_THAT(contentOf(kLog), HasSubstr("android::kus::KUsbService::Register()"));
    }
    shell("services start servicemanager kusgate");
}

TEST_F(CrashTest, ACrashInTheMiddleOfAResetGivesTheRoleBack) {
    const std::string hsusb = "/sys/devices/platform/soc/c200000.hsusb/mode";
    const std::string ssusb = "/sys/devices/platform/soc/a800000.ssusb/mode";
    const struct {
        int signal;
        int waitMs;
        std::string controller;
    } cases[] = {
        // A wait is between the roles of the adapter's controller.
        {SIGSEGV, 0, hsusb},
        {SIGABRT, 30000, ssusb},
        {SIGKILL, 30000, ssusb},
    };
    const Plugged adapter("dock", "--vendor 0x17E9 --product 0x6000 --network --port 3");
    for (const auto& crash : cases) {
        SCOPED_TRACE(crash.signal);
        startDaemon();
        awaitDaemon();
        adapter.decision();
        std::thread reset([&] { service()->resetUsbDevices(crash.waitMs); });
        const auto none = [&] { return contentOf(crash.controller) == "none"; };
        for (const auto end = steady_clock::now() + 30s; !none() && steady_clock::now() < end;) {
            sleep_for(1ms);
        }
        daemon_->kill(SIGSTOP);
        EXPECT_TRUE(none());
        daemon_->kill(crash.signal);
        daemon_->kill(SIGCONT);
        ASSERT_TRUE(daemon_->ends());
        daemon_->exitStatus();
        reset.join();
        if (crash.signal == SIGKILL) {
            startDaemon();
            awaitDaemon();
            printf("started after SIGKILL in the middle of a reset: the controller's role is %s\n",
                   contentOf(crash.controller).c_str());
        } else {
            EXPECT_EQ(contentOf(hsusb), "host");
            EXPECT_EQ(contentOf(ssusb), "host");
        }
        giveRolesBack();
    }
}

/**
 * Makes the unused rest of every arena of a process look larger than it can be, for which glibc's
 * malloc aborts while it holds the arena's lock. The rest's size is the word before it, with bit 0
 * set. Returns how many words were changed.
 */
int corruptHeaps(pid_t pid) {
    const std::string process = "/proc/" + std::to_string(pid);
    const base::unique_fd memory(open((process + "/mem").c_str(), O_RDWR | O_CLOEXEC));
    int corrupted = 0;
    for (const std::string& mapping : base::Split(contentOf(process + "/maps"), "\n")) {
        uint64_t start, end;
        char access[5], path[64] = "";
        sscanf(mapping.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %*s %*s %*s %63s", &start, &end,
               access, path);
        const bool arena = path[0] == '\0' && start % (64 << 20) == 0;
        if (strcmp(access, "rw-p") != 0 || !(arena || strcmp(path, "[heap]") == 0)) continue;
        std::vector<uint64_t> words((end - start) / sizeof(uint64_t));
        if (pread(memory.get(), words.data(), end - start, start) < 0) continue;
        for (size_t i = 1; i < words.size(); ++i) {
            const uint64_t chunk = start + (i - 1) * sizeof(uint64_t);
            if (words[i] % 8 != 1 || chunk + words[i] - 1 != end) continue;
            const uint64_t tooLarge = ~uint64_t{7} | 1;
            corrupted += pwrite(memory.get(), &tooLarge, sizeof(tooLarge),
                                start + i * sizeof(uint64_t)) == sizeof(tooLarge);
        }
    }
    return corrupted;
}

TEST_F(CrashTest, AHandlerThatHangsEndsAllTheSame) {
    startDaemon();
    awaitDaemon();
    const sp<IKUsbService> kus = service();
    daemon_->kill(SIGSTOP);
    EXPECT_GT(corruptHeaps(daemon_->pid()), 0);
    daemon_->kill(SIGCONT);
    // Records fill the heap.
    std::thread asking([kus] {
        DeviceInfo device;
        device.deviceName = std::string(5000, 'n');
        device.deviceType = 1;
        bool allowed;
        while (kus->isDeviceAllowed(device, &allowed).isOk() && device.deviceId < 1000) {
            ++device.deviceId;
        }
    });
    EXPECT_TRUE(daemon_->ends()) << "it hangs";
    daemon_->kill(SIGKILL);
    asking.join();
    const int status = daemon_->exitStatus();
    EXPECT_TRUE(status == SIGABRT || status == -SIGALRM) << status;
    expectDecidesUnderTheRestoredRules();
}

}  // namespace
}  // namespace android::kus
