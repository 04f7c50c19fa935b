// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>
#include <mutex>
#include <shared_mutex>

#include "service_test.h"

namespace android::kus {
namespace {

constexpr char kGood[] =
    "<usbconfig mode=\"whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>\n";
constexpr char kBetter[] =
    "<usbconfig mode=\"blacklist\"><class>USB_CLASS_VIDEO</class></usbconfig>\n";
constexpr char kBad[] = "<usbconfig mode=\"sometimes\"/>\n";
const std::string kEvent = "I CLOSE_WRITE event triggered on filename ";
constexpr char kReset[] = "I usb_host_reset entered:";
constexpr char kParse[] = "I Admin usb_device_config.xml config file call parsing";

std::string path(const std::string& name) { return configDirectory + ("/" + name); }

/** Writes a good rules file, and waits for the end of what that starts. */
Texts accept(const std::string& rules) {
    writeFile(configFilePath, rules);
    return takeLogUntil(kReset);
}

void expectAccepted(const std::string& rules) {
    EXPECT_EQ(readFile(configFilePath), rules);
    EXPECT_EQ(readFile(backupFilePath), rules);
    EXPECT_EQ(readFile(statusFilePath), "SUCCESS");
}

/** The observer's thread, on the private directory and with the kernel's inotify. */
class Observer {
  public:
    Observer() {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, nullptr);
        thread_ = std::thread([this] {
            KUsbService::registerFileObserver(nullptr);
            ended_ = true;
        });
    }

    ~Observer() { end(); }

    void interrupt() { pthread_kill(thread_.native_handle(), SIGUSR1); }

    /**
     * Takes its descriptor away, and makes it read again. That of an observer which an earlier test
     * has left, too: it would have this one's events.
     */
    void end() {
        if (!thread_.joinable()) return;
        for (const fs::directory_entry& fd : fs::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            if (fs::read_symlink(fd, gone) != "anon_inode:inotify") continue;
            // Not close(): that the thread still reads from it is the point, but a race to the
            // thread sanitizer.
            syscall(SYS_close, stoi(fd.path().filename().string()));
        }
        while (!ended_) {
            interrupt();
            usleep(1000);
        }
        thread_.join();
    }

  private:
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

class ObserverTest : public ServiceTest {
  protected:
    ObserverTest() { takeLogUntil("registered successfully file observer"); }

    Observer observer_;
};

TEST_F(ObserverTest, AGoodRewriteBecomesTheBackup) {
    Texts log = accept(kGood);
    EXPECT_THAT(Texts(log.begin(), log.begin() + 2), ElementsAre(kEvent + configFilePath, kParse));
    log.erase(log.begin(), std::find(log.begin(), log.end(), "I class val--1") + 1);
    log.resize(4);
    EXPECT_THAT(log, ElementsAre("I Parsing status xml_parse_status 1",
                                 "I Parsing success, so update status file and create backup",
                                 "I updateErrorFile called with error message : SUCCESS",
                                 StartsWith("I  USB xml src path is ")));
    expectAccepted(kGood);
    EXPECT_THAT(classList, ElementsAre(1));
}

TEST_F(ObserverTest, ABadRewriteIsUndoneAndKeepsItsStatus) {
    accept(kGood);
    for (const auto& [bad, status] : {std::pair(kBad, "INVALID MODE"), {"<broken", "Error="}}) {
        writeFile(configFilePath, bad);
        const Texts log = takeLogUntil("Parsing status xml_parse_status 1");
        EXPECT_THAT(log, Contains("I Parsing failure, copying backup file content"));
        EXPECT_EQ(countOf(kParse, log), 2) << "the bad one's and the restored one's";
        EXPECT_EQ(readFile(configFilePath), kGood);
        EXPECT_EQ(readFile(backupFilePath), kGood);
        EXPECT_THAT(readFile(statusFilePath), StartsWith(status));
    }
    // The next rewrite is an ordinary one again, and the only one that is told.
    EXPECT_EQ(countOf("I updateErrorFile called with error message : SUCCESS", accept(kBetter)), 1);
    expectAccepted(kBetter);
}

// While the first parse waits for the lock, the kernel collects what follows.
TEST_F(ObserverTest, EventsThatComeInOneReadAreAllWalked) {
    const Texts files = {path("a"), configFilePath,
                         path("usb_device_config.xml.and_a_much_longer_name_than_the_others"),
                         configFilePath, path("end")};
    {
        const std::shared_lock held(ruleTablesLock);
        writeFile(configFilePath, kGood);
        takeLogUntil(kParse);
        // An event on the watched directory itself comes without a name.
        chmod(configDirectory, 0700);
        writeFile("/data/system/other", "");
        for (const std::string& file : files) writeFile(file, kGood);
    }
    const Texts log = takeLogUntil(path("end"));
    EXPECT_EQ(countOf(kParse, log), 2) << "besides the first";
    Texts events;
    for (const std::string& line : log) {
        if (base::StartsWith(line, kEvent)) events.push_back(line.substr(kEvent.size()));
    }
    events.resize(files.size());
    EXPECT_EQ(events, files);
    EXPECT_EQ(configMode, "whitelist");
}

// The refused text is never restored over, however long it takes to write the next one.
TEST_F(ObserverTest, ARefusedFileThatIsBeingRewrittenIsLeftToTheRewrite) {
    accept(kGood);
    base::unique_fd rules;
    {
        const std::shared_lock held(ruleTablesLock);
        writeFile(configFilePath, kBad);
        takeLogUntil(kParse);
        rules.reset(open(configFilePath, O_WRONLY | O_TRUNC | O_CLOEXEC));
    }
    takeLogUntil("Parsing status xml_parse_status 0");
    usleep(200000);
    ASSERT_TRUE(base::WriteStringToFd(kBetter, rules));
    rules.reset();
    EXPECT_THAT(takeLogUntil(kReset), Not(Contains(HasSubstr("Parsing failure"))));
    expectAccepted(kBetter);
}

TEST_F(ObserverTest, WithoutABackupARestoreIsTriedOnceASecond) {
    writeFile(configFilePath, kBad);
    takeLogUntil("Parsing status xml_parse_status 0");
    usleep(2500000);
    EXPECT_THAT(countOf(kParse, takeLog()), AllOf(Ge(2), Le(4)));
    writeFile(configFilePath, kGood);
    takeLogUntil(kReset, milliseconds(500));
    expectAccepted(kGood);
}

// The kernel drops what its queue has no room for, and says just that it did.
TEST_F(ObserverTest, ARewriteWhoseEventIsLostIsFound) {
    int events = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> events;
    ASSERT_GT(events, 0);
    // Keeps the observer waiting.
    ASSERT_EQ(mkfifo(statusFilePath, 0600), 0);
    writeFile(configFilePath, kGood);
    takeLogUntil("updateErrorFile called");
    for (int i = 0; i < events; ++i) {
        close(open(configDirectory, O_RDONLY | O_CLOEXEC));
        close(open(configFilePath, O_RDONLY | O_CLOEXEC));
    }
    writeFile(configFilePath, kBetter);
    const base::unique_fd fifo(open(statusFilePath, O_RDONLY | O_CLOEXEC));
    fs::remove(statusFilePath);
    std::string status;
    EXPECT_TRUE(base::ReadFdToString(fifo, &status));
    EXPECT_EQ(status, "SUCCESS");
    takeLogUntil("I <usbconfig mode=\"blacklist\">");
    expectAccepted(kBetter);
    EXPECT_EQ(configMode, "blacklist");
}

TEST_F(ObserverTest, RulesDoNotWaitForAReset) {
    {
        const std::lock_guard busy(UsbDevice::hostResetMutex);
        for (const char* rules : {kGood, kBetter, kGood, kBetter}) {
            writeFile(configFilePath, rules);
            takeLogUntil("copied successfully");
            expectAccepted(rules);
        }
        takeLog();
    }
    usleep(50000);
    EXPECT_EQ(countOf(kReset, accept(kGood)), 1);
}

// For the thread sanitizer. Both good files allow class 1 and refuse class 8; what the refused one
// leaves in the tables would do the opposite.
TEST_F(ObserverTest, EightThreadsCallEverythingWhileRulesAreRewritten) {
    const std::string rewrites[] = {
        kGood,
        "<usbconfig mode=\"whitelist\"><class>USB_CLASS_MASS_STORAGE</class><foo/></usbconfig>",
        "<usbconfig mode=\"blacklist\"><class>USB_CLASS_MASS_STORAGE</class></usbconfig>", kBad};
    writeFile("/sys/devices/platform/soc/a800000.ssusb/mode", "host");
    writeFile("/sys/class/power_supply/dc/online", "1");
    addDevice("1-1", 1);
    addInterface("1-1:1.0", 8);
    accept(kGood);

    const DeviceInfo stick = usbDevice(1001, {8}), keyboard = inputDevice(1003, 0x101);
    const base::unique_fd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    std::atomic<bool> ended = false;
    std::vector<std::thread> threads;
    const auto repeat = [&](const std::function<void()>& call) {
        threads.emplace_back([&ended, call] {
            for (; !ended; usleep(1000)) call();
        });
    };
    repeat([&] { EXPECT_FALSE(isAllowed(stick)); });
    repeat([&] { EXPECT_TRUE(isAllowed(usbDevice(1002, {1}))); });
    repeat([&] {
        isAllowed(keyboard);
        remove(keyboard);
    });
    repeat([&] {
        deviceList();
        remove(stick);
    });
    repeat([&] {
        service_->registerKusCallback(client_);
        service_->unregisterKusCallback(client_);
    });
    repeat([&] {
        const sp<FakeClient> dying = new FakeClient();
        service_->registerKusCallback(dying);
        dying->die();
    });
    repeat([&, wait = -1]() mutable { service_->resetUsbDevices(wait = -wait); });
    repeat([&] {
        dump(nowhere.get());
        dump(nowhere.get(), {"test"});
    });
    for (int i = 0; i < 80; ++i) {
        writeFile(configFilePath, rewrites[i % std::size(rewrites)]);
        usleep(i % 3 * 20000);
    }
    ended = true;
    for (std::thread& thread : threads) thread.join();
}

TEST_F(KusTest, ARewriteBeforeTheWatchIsFound) {
    writeFile(configFilePath, kGood);
    const Observer observer;
    takeLogUntil(kReset);
    expectAccepted(kGood);
}

TEST_F(ObserverTest, AnInterruptedReadGoesOnAndAFailedOneEndsTheThread) {
    // Again and again: the thread may not be in its read yet.
    std::thread interrupter([this] {
        for (int i = 0; i < 20; ++i) {
            observer_.interrupt();
            usleep(10000);
        }
    });
    takeLogUntil("(errno == EINTR)");
    interrupter.join();
    accept(kGood);
    observer_.end();
    EXPECT_THAT(takeLog(), Contains("I Could not get read event, Bad file descriptor"));
}

TEST_F(KusTest, AnObserverWithoutADirectorySaysSo) {
    fs::remove_all(configDirectory);
    const Observer observer;
    const std::string error = "E -1 < 0 Could not register INotify for";
    EXPECT_THAT(takeLogUntil(error), ElementsAre("I No directory", error + configDirectory));
}

}  // namespace
}  // namespace android::kus
