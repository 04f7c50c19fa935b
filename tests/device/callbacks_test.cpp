// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>
#include <utils/Vector.h>

#include <atomic>
#include <thread>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

using android::base::StringPrintf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kStick[] = "--vendor 2385 --product 5734 --storage";
constexpr int kQuietMs = 1500;

class CallbacksTest : public DeviceTest {};

int registrationsInLog() {
    return atoi(
        shell("sed -n 's/.*Size of callbacks at [a-zA-Z ]*//p' /data/log/kusd.log | tail -n 1")
            .c_str());
}

TEST_F(CallbacksTest, ClientsHearOfUsbDevicesThatComeAndGo) {
    setRules("whitelist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Client first(1), second(1);
    int id, other;
    {
        const Plugged stick("stick", kStick);
        id = stick.decision().deviceId;
        const Plugged serial("serial", "--vendor 1155 --product 1 --serial");
        other = serial.decision().deviceId;
    }
    for (Client* client : {&first, &second}) {
        EXPECT_EQ(client->line(), StringPrintf("added %d 1", id));
        EXPECT_EQ(client->line(), StringPrintf("added %d 0", other));
        EXPECT_EQ(client->line(), StringPrintf("removed %d", other));
        EXPECT_EQ(client->line(), StringPrintf("removed %d", id));
    }
}

TEST_F(CallbacksTest, OneUnregisterTakesBackOneRegistration) {
    Client client(2);
    client.poke();
    EXPECT_EQ(client.line(), "unregistered");
    const Plugged stick("stick", kStick);
    const std::string added = StringPrintf("added %d 1", stick.decision().deviceId);
    EXPECT_EQ(client.line(), added);
    EXPECT_EQ(client.line(kQuietMs), "") << "told twice";
    // Once more than it registered: that is a no-op.
    for (int i = 0; i < 2; ++i) {
        client.poke();
        EXPECT_EQ(client.line(), "unregistered");
    }
    const Plugged serial("serial", "--vendor 1155 --product 1 --serial");
    EXPECT_EQ(serial.decision().status, 1);
    EXPECT_EQ(client.line(kQuietMs), "") << "told after the last unregister";
}

TEST_F(CallbacksTest, AClientThatIsKilledWhileRegisteredTwiceIsForgotten) {
    const pid_t daemon = daemonPid();
    Client survivor(1);
    {
        Client victim(2);
        EXPECT_TRUE(eventually([] { return registrationsInLog() == 3; })) << registrationsInLog();
        victim.kill(SIGKILL);
        EXPECT_TRUE(eventually([] { return registrationsInLog() == 1; })) << registrationsInLog();
    }
    const Plugged stick("stick", kStick);
    EXPECT_EQ(survivor.line(), StringPrintf("added %d 1", stick.decision().deviceId));
    EXPECT_EQ(daemonPid(), daemon);
}

/** Ends processes that a test waits for in vain, so that it goes on, and fails. */
class Deadline {
  public:
    Deadline(std::chrono::seconds time, std::vector<Process*> processes)
        : thread_([=] {
              if (eventually([this] { return done_.load(); }, time)) return;
              passed_ = true;
              for (Process* process : processes) process->kill(SIGKILL);
          }) {}
    ~Deadline() {
        done_ = true;
        thread_.join();
    }
    bool passed() const { return passed_; }

  private:
    std::atomic<bool> done_ = false;
    std::atomic<bool> passed_ = false;
    std::thread thread_;
};

std::vector<std::string> lines(Process* client, size_t count) {
    std::vector<std::string> lines;
    while (lines.size() < count) {
        lines.push_back(client->line());
        if (lines.back().empty()) break;
    }
    return lines;
}

DeviceInfo madeUp(int id, const std::string& name = "made up") {
    DeviceInfo device;
    device.deviceName = name;
    device.deviceId = id;
    device.interfaceClassList = {8};
    return device;
}

TEST_F(CallbacksTest, AClientThatTakesNothingDelaysNobody) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Client healthy(1), stopped(1), hung(1, /*hangs=*/true);
    Process watch({"kusctl", "watch"});
    EXPECT_TRUE(eventually([] { return registrationsInLog() == 4; }));
    stopped.kill(SIGSTOP);
    watch.kill(SIGSTOP);
    std::vector<std::string> told;
    {
        const Deadline deadline(60s, {&stopped, &hung, &watch});
        const Plugged stick("stick", kStick);
        const int id = stick.decision().deviceId;
        EXPECT_TRUE(eventually([&] { return stick.interfaceState(0) == " 0"; }));
        told = {StringPrintf("added %d 0", id)};
        for (int i = 0; i < 30; ++i) {
            EXPECT_FALSE(isAllowed({8}));
            told.insert(told.end(), {"added 99000 0", "removed 99000"});
        }
        EXPECT_EQ(lines(&healthy, told.size()), told);
        ASSERT_FALSE(deadline.passed()) << "decisions or notices waited for a client";
    }
    EXPECT_THAT(healthy.line(), StartsWith("removed "));
    stopped.kill(SIGCONT);
    watch.kill(SIGCONT);
    EXPECT_EQ(lines(&stopped, told.size()), told);
    EXPECT_THAT(stopped.line(), StartsWith("removed "));
    EXPECT_THAT(watch.line(), HasSubstr("stick"));
}

TEST_F(CallbacksTest, NoticesStayInOrder) {
    constexpr int kNotices = 200;
    Client client(1);
    std::thread stopAndGo([&] {
        for (int i = 0; i < kNotices / 10; ++i) {
            client.kill(i % 2 == 0 ? SIGSTOP : SIGCONT);
            std::this_thread::sleep_for(50ms);
        }
    });
    std::vector<std::string> expected[2];
    std::vector<std::thread> senders;
    for (const int first : {1, 1001}) {
        senders.emplace_back([first] {
            for (int i = 0; i < kNotices; ++i) service()->updateDeviceList(madeUp(first + i), 0);
        });
        for (int i = 0; i < kNotices; ++i) {
            expected[first / 1000].push_back(StringPrintf("removed %d", first + i));
        }
    }
    std::vector<std::string> heard[2];
    for (const std::string& line : lines(&client, 2 * kNotices)) {
        heard[line.size() >= strlen("removed 1000")].push_back(line);
    }
    for (std::thread& sender : senders) sender.join();
    stopAndGo.join();
    for (const int sender : {0, 1}) EXPECT_EQ(heard[sender], expected[sender]);
}

// Notices for one client together have half a megabyte in the kernel; the kernel refuses more.
TEST_F(CallbacksTest, AFullBufferCostsItsClientAloneItsNotices) {
    constexpr int kDevices = 8;
    const auto errors = [] {
        return stoi(
            shell("grep -cE '^[^ ]+ E .*onDevice(Added|Removed)' /data/log/kusd.log || true"));
    };
    const std::string longName(60000, 'n');
    Client healthy(1), stopped(1);
    const int before = errors();
    stopped.kill(SIGSTOP);
    {
        const Deadline deadline(60s, {&stopped});
        for (int id = 1; id <= kDevices; ++id) {
            bool allowed;
            service()->isDeviceAllowed(madeUp(id, longName), &allowed);
            EXPECT_EQ(healthy.line(), StringPrintf("added %d 1", id));
            service()->updateDeviceList(madeUp(id, longName), 0);
            EXPECT_EQ(healthy.line(), StringPrintf("removed %d", id));
        }
        ASSERT_FALSE(deadline.passed()) << "decisions or notices waited for a client";
    }
    const int lost = errors() - before;
    EXPECT_GT(lost, 0) << "its buffer was never full, or nothing was logged";
    service()->updateDeviceList(madeUp(9), 0);
    stopped.kill(SIGCONT);
    int heard = 0;
    for (std::string line; !(line = stopped.line()).empty() && line != "removed 9";) ++heard;
    EXPECT_EQ(heard + lost, 2 * kDevices) << "one line for each lost notice";
}

TEST_F(CallbacksTest, ReadersOfADumpThatTakeNothingStopNoDecisions) {
    constexpr int kReaders = 25;
    constexpr int kDecisions = 10;
    std::vector<base::unique_fd> readEnds;
    std::vector<std::thread> dumps;
    std::atomic<int> running = kReaders;
    for (int i = 0; i < kReaders; ++i) {
        base::unique_fd in, out;
        ASSERT_TRUE(base::Pipe(&in, &out, O_CLOEXEC | O_NONBLOCK));
        const char page[4096] = {};
        while (write(out.get(), page, sizeof(page)) > 0) continue;
        fcntl(out.get(), F_SETFL, 0);
        readEnds.push_back(std::move(in));
        dumps.emplace_back([&running, i, out = std::move(out)] {
            Vector<String16> arguments;
            if (i % 2 == 0) arguments.add(String16("test"));
            IInterface::asBinder(service())->dump(out.get(), arguments);
            --running;
        });
    }
    // A dump holds a thread of the daemon's for five seconds, and there are sixteen threads.
    std::atomic<int> decisions = 0;
    std::thread asking([&] {
        for (; decisions < kDecisions; ++decisions) isAllowed({8});
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(eventually([&] { return decisions == kDecisions; }));
    const auto decided = std::chrono::steady_clock::now() - start;
    EXPECT_TRUE(eventually([&] { return running == 0; })) << running << " are still served";
    printf("%d decisions took %.1f s\n", kDecisions,
           std::chrono::duration<double>(decided).count());
    readEnds.clear();
    asking.join();
    for (std::thread& dump : dumps) dump.join();
}

class CountedCallback : public BnKUsbServiceCallback {
  public:
    CountedCallback() { ++alive; }
    ~CountedCallback() { --alive; }
    binder::Status onDeviceAdded(const DeviceInfo&) override { return binder::Status::ok(); }
    binder::Status onDeviceRemoved(const DeviceInfo&) override { return binder::Status::ok(); }

    static std::atomic<int> alive;
};
std::atomic<int> CountedCallback::alive = 0;

TEST_F(CallbacksTest, RegistrationsThatComeAndGoLeakNothing) {
    const pid_t daemon = daemonPid();
    const auto comeAndGo = [](int times) {
        for (int i = 0; i < times; ++i) {
            const sp<CountedCallback> callback = new CountedCallback();
            service()->registerKusCallback(callback);
            service()->unregisterKusCallback(callback);
        }
    };
    comeAndGo(300);
    const long before = residentKilobytes(daemon);
    comeAndGo(fullRun() ? 10000 : 1000);
    EXPECT_TRUE(eventually([] { return CountedCallback::alive == 0; })) << CountedCallback::alive;
    // A leaked registration would cost some hundred bytes.
    EXPECT_LT(residentKilobytes(daemon) - before, 128);
    EXPECT_EQ(daemonPid(), daemon);
}

}  // namespace
}  // namespace android::kus
