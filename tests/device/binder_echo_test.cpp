// SPDX-License-Identifier: Apache-2.0

// The binder library and the service manager over the kernel's driver. The other ends of the calls
// are processes of their own: this executable, run again in another role.

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "process.h"

namespace {

using namespace std::chrono_literals;
using android::BBinder;
using android::DEAD_OBJECT;
using android::FAILED_TRANSACTION;
using android::IBinder;
using android::IPCThreadState;
using android::NAME_NOT_FOUND;
using android::OK;
using android::Parcel;
using android::ProcessState;
using android::sp;
using android::status_t;
using android::String16;
using android::UNEXPECTED_NULL;
using android::UNKNOWN_TRANSACTION;
using android::Vector;
using android::wp;
using android::base::unique_fd;
using android::kus::eventually;
using android::kus::Process;
using android::kus::residentKilobytes;

constexpr char kEchoRole[] = "--echo";
constexpr auto kPatience = 20s;

// The address sanitizer keeps freed memory for a while, and takes its time.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

class Counter : public IBinder::DeathRecipient {
  public:
    void binderDied(const wp<IBinder>&) override { ++deaths; }
    std::atomic<int> deaths = 0;
};

class DeviceListener : public android::kus::BnKUsbServiceCallback {
  public:
    android::binder::Status onDeviceAdded(const android::kus::DeviceInfo&) override {
        return android::binder::Status::ok();
    }
    android::binder::Status onDeviceRemoved(const android::kus::DeviceInfo&) override {
        return android::binder::Status::ok();
    }
};

/** What the processes under test serve. Arguments and results follow each code. */
enum EchoCode : uint32_t {
    ECHO = IBinder::FIRST_CALL_TRANSACTION,  // string; string, caller's pid, caller's uid
    BOUNCE,                                  // depth, binder; depth that came back from its BOUNCE
    MEET,      // number of calls; whether that many were inside at once
    KEEP,      // binder
    DROP,      // binder; whether it was kept
    NOTE,      // number, anything; -1 is noted before it where another call was not done yet
    NOTES,     // ; numbers noted, in order
    WARNING,   // ; the process's last warning
    FD_TEXT,   // file descriptor; what it can read
    LISTENER,  // ; binder of a DeviceListener
    SAME,      // binder; the same binder
};

class Echo : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override {
        static const String16 descriptor("test.Echo");
        return descriptor;
    }

    status_t dump(int fd, const Vector<String16>& args) override {
        for (const String16& arg : args) {
            android::base::WriteStringToFd(std::string(android::String8(arg).string()) + ";", fd);
        }
        return OK;
    }

    void warn(const char* message) {
        std::lock_guard lock(mLock);
        mWarning = String16(message);
    }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case ECHO:
                reply->writeString16(data.readString16());
                reply->writeInt32(IPCThreadState::self()->getCallingPid());
                return reply->writeUint32(IPCThreadState::self()->getCallingUid());
            case BOUNCE:
                return bounce(data.readInt32(), data.readStrongBinder(), reply);
            case MEET:
                return reply->writeBool(meet(data.readInt32()));
            case KEEP:
                return keep(data.readStrongBinder());
            case DROP:
                return reply->writeBool(drop(data.readStrongBinder()));
            case NOTE:
                note(data.readInt32());
                return OK;
            case WARNING:
                return reply->writeString16(warning());
            case NOTES: {
                std::lock_guard lock(mLock);
                return reply->writeInt32Vector(mNotes);
            }
            case FD_TEXT: {
                char text[100] = {};
                if (read(data.readFileDescriptor(), text, sizeof(text) - 1) < 0) return -errno;
                return reply->writeString16(String16(text));
            }
            case LISTENER:
                return reply->writeStrongBinder(mListener);
            case SAME:
                return reply->writeStrongBinder(data.readStrongBinder());
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

  private:
    void note(int32_t number) {
        const bool alone = !mNoting.exchange(true);
        std::this_thread::yield();
        std::lock_guard lock(mLock);
        if (!alone) mNotes.push_back(-1);
        mNotes.push_back(number);
        mNoting = false;
    }

    String16 warning() {
        std::lock_guard lock(mLock);
        return mWarning;
    }

    status_t bounce(int32_t depth, const sp<IBinder>& back, Parcel* reply) {
        if (depth == 0) return reply->writeInt32(0);
        Parcel data;
        data.writeInt32(depth - 1);
        data.writeStrongBinder(this);
        Parcel answer;
        const status_t status = back->transact(BOUNCE, data, &answer);
        return status == OK ? reply->writeInt32(answer.readInt32() + 1) : status;
    }

    bool meet(int32_t count) {
        std::unique_lock lock(mLock);
        ++mPresent;
        mArrived.notify_all();
        return mArrived.wait_for(lock, kPatience, [&] { return mPresent >= count; });
    }

    status_t keep(const sp<IBinder>& binder) {
        if (binder == nullptr) return android::BAD_VALUE;
        const status_t status = binder->linkToDeath(mCounter);
        if (status != OK) return status;
        std::lock_guard lock(mLock);
        mKept.push_back(binder);
        return OK;
    }

    bool drop(const sp<IBinder>& binder) {
        std::lock_guard lock(mLock);
        const auto found = std::find(mKept.begin(), mKept.end(), binder);
        if (found == mKept.end()) return false;
        mKept.erase(found);
        return binder->unlinkToDeath(mCounter) == OK;
    }

    const sp<Counter> mCounter = new Counter;
    const sp<DeviceListener> mListener = new DeviceListener;
    std::mutex mLock;
    std::condition_variable mArrived;
    int32_t mPresent = 0;
    std::vector<sp<IBinder>> mKept;
    std::vector<int32_t> mNotes;
    std::atomic<bool> mNoting = false;
    String16 mWarning;
};

status_t addService(const char* name, const sp<IBinder>& service) {
    return android::defaultServiceManager()->addService(String16(name), service);
}

sp<IBinder> checkService(const std::string& name) {
    return android::defaultServiceManager()->checkService(String16(name.c_str()));
}

int runEcho(const char* name) {
    const sp<Echo> echo = new Echo;
    android::base::SetLogger(
        [=](auto, android::base::LogSeverity severity, auto, auto, auto, const char* message) {
            if (severity == android::base::WARNING) echo->warn(message);
        });
    if (addService(name, echo) != OK) return 1;
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 1;
}

/** An echo service of that name in a process of its own. */
class EchoProcess : public Process {
  public:
    explicit EchoProcess(const char* name) : Process({"/proc/self/exe", kEchoRole, name}) {}
};

class BinderTest : public testing::Test {
  protected:
    static constexpr char kName[] = "test.echo";

    void SetUp() override {
        // The last test's service may be known until the service manager has heard of its death.
        ASSERT_TRUE(eventually([] { return checkService(kName) == nullptr; }));
        mProcess = std::make_unique<EchoProcess>(kName);
        mEcho = android::defaultServiceManager()->waitForService(String16(kName));
        ASSERT_NE(mEcho, nullptr);
    }

    /** Whether the service answers as it should. */
    bool isUp() {
        Parcel data;
        Parcel reply;
        data.writeString16(String16("up"));
        return mEcho->transact(ECHO, data, &reply) == OK && reply.readString16() == String16("up");
    }

    static status_t noteOneWay(const sp<IBinder>& echo, int32_t number, size_t payload) {
        Parcel data;
        data.writeInt32(number);
        data.writeInplace(payload);
        return echo->transact(NOTE, data, nullptr, IBinder::FLAG_ONEWAY);
    }

    static std::vector<int32_t> notes(const sp<IBinder>& echo) {
        Parcel data;
        Parcel reply;
        std::vector<int32_t> noted;
        EXPECT_EQ(echo->transact(NOTES, data, &reply), OK);
        EXPECT_EQ(reply.readInt32Vector(&noted), OK);
        return noted;
    }

    std::unique_ptr<Process> mProcess;
    sp<IBinder> mEcho;
};

TEST_F(BinderTest, CallCarriesTheCallersIdentity) {
    Parcel data;
    Parcel reply;
    data.writeUtf8AsUtf16(std::string("h\u00e4\u20ac\U0001F600"));
    ASSERT_EQ(mEcho->transact(ECHO, data, &reply), OK);
    std::string text;
    EXPECT_EQ(reply.readUtf8FromUtf16(&text), OK);
    EXPECT_EQ(text, "h\u00e4\u20ac\U0001F600");
    EXPECT_EQ(reply.readInt32(), getpid());
    EXPECT_EQ(reply.readUint32(), getuid());
}

TEST_F(BinderTest, ProxyAnswersForTheRemoteObject) {
    EXPECT_EQ(mEcho->localBinder(), nullptr);
    EXPECT_NE(mEcho->remoteBinder(), nullptr);
    EXPECT_EQ(mEcho->getInterfaceDescriptor(), String16("test.Echo"));
    EXPECT_EQ(mEcho->pingBinder(), OK);
    EXPECT_TRUE(mEcho->isBinderAlive());
    Parcel data;
    EXPECT_EQ(mEcho->transact(IBinder::LAST_CALL_TRANSACTION, data, nullptr), UNKNOWN_TRANSACTION);
}

TEST_F(BinderTest, BinderKeepsItsIdentity) {
    EXPECT_EQ(checkService(kName), mEcho);
    const sp<IBinder> local = new BBinder;
    for (const sp<IBinder>& binder : {local, mEcho}) {
        Parcel data;
        Parcel reply;
        data.writeStrongBinder(binder);
        ASSERT_EQ(mEcho->transact(SAME, data, &reply), OK);
        EXPECT_EQ(reply.readStrongBinder(), binder);
    }
    Parcel data;
    Parcel reply;
    data.writeStrongBinder(nullptr);
    ASSERT_EQ(mEcho->transact(SAME, data, &reply), OK);
    sp<IBinder> none;
    EXPECT_EQ(reply.readStrongBinder(&none), UNEXPECTED_NULL);
}

TEST_F(BinderTest, ProxyKeepsTheStabilityThatItCameWith) {
    constexpr size_t kStabilityAt = 24;
    Parcel handle;
    handle.writeStrongBinder(mEcho);
    const auto* words = reinterpret_cast<const int32_t*>(handle.data());
    // "sh*", the least priority, the handle in 8 bytes, no cookie; the system's stability.
    EXPECT_EQ(std::vector<int32_t>(words, words + handle.dataSize() / sizeof(int32_t)),
              (std::vector<int32_t>{0x73682a85, 19, mEcho->remoteBinder()->handle(), 0, 0, 0, 12}));

    // A vendor's, the system's and a stable interface; none and an unknown one are refused.
    for (const int32_t stability : {3, 12, 63, 0, 1}) {
        Parcel data;
        Parcel reply;
        data.writeStrongBinder(new BBinder);
        data.setDataPosition(kStabilityAt);
        data.writeInt32(stability);
        ASSERT_EQ(mEcho->transact(SAME, data, &reply), OK);
        reply.setDataPosition(kStabilityAt);
        EXPECT_EQ(reply.readInt32(), stability >= 3 ? stability : 0);
    }
}

TEST_F(BinderTest, NestedCallsReachTheWaitingThread) {
    class Thrower : public BBinder {
      public:
        std::vector<pid_t> threads;

      protected:
        status_t onTransact(uint32_t, const Parcel& data, Parcel* reply, uint32_t) override {
            threads.push_back(gettid());
            const int32_t depth = data.readInt32();
            const sp<IBinder> back = data.readStrongBinder();
            if (depth == 0) return reply->writeInt32(0);
            Parcel again;
            Parcel answer;
            again.writeInt32(depth - 1);
            again.writeStrongBinder(this);
            const status_t status = back->transact(BOUNCE, again, &answer);
            return status == OK ? reply->writeInt32(answer.readInt32() + 1) : status;
        }
    };
    const sp<Thrower> thrower = new Thrower;
    Parcel data;
    Parcel reply;
    data.writeInt32(9);
    data.writeStrongBinder(thrower);
    ASSERT_EQ(mEcho->transact(BOUNCE, data, &reply), OK);
    EXPECT_EQ(reply.readInt32(), 9);
    EXPECT_EQ(thrower->threads, std::vector<pid_t>(5, gettid()));
}

TEST_F(BinderTest, PoolGrowsWithParallelCalls) {
    constexpr int kCalls = 12;
    std::atomic<int> met = 0;
    std::vector<std::thread> callers;
    for (int i = 0; i < kCalls; ++i) {
        callers.emplace_back([&] {
            Parcel data;
            Parcel reply;
            data.writeInt32(kCalls);
            if (mEcho->transact(MEET, data, &reply) == OK && reply.readBool()) ++met;
        });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(met, kCalls);
}

TEST_F(BinderTest, OnewayCallsComeInOrderAndOneAtATime) {
    // Makes the pool grow, so that there are threads to overtake one another.
    std::atomic<bool> done = false;
    std::vector<std::thread> others;
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
            while (!done) isUp();
        });
    }
    std::vector<int32_t> sent;
    const auto send = [&](size_t payload) {
        const auto number = static_cast<int32_t>(sent.size());
        const status_t status = noteOneWay(mEcho, number, payload);
        if (status == OK) sent.push_back(number);
        return status;
    };
    // None of them waits for its end: the receiver goes on after 50 of them only.
    for (int i = 0; i < 2000; ++i) {
        if (i % 200 == 100) mProcess->kill(SIGSTOP);
        if (i % 200 == 150) mProcess->kill(SIGCONT);
        EXPECT_EQ(send(4), OK);
    }

    // A receiver whose buffer is full costs its own callers these calls, and nobody else any.
    mProcess->kill(SIGSTOP);
    status_t status = OK;
    while (status == OK && sent.size() < 10000) status = send(4096);
    EXPECT_EQ(status, FAILED_TRANSACTION);
    EchoProcess other("test.other");
    const sp<IBinder> echo =
        android::defaultServiceManager()->waitForService(String16("test.other"));
    EXPECT_EQ(noteOneWay(echo, 7, 4096), OK);
    EXPECT_TRUE(eventually([&] { return notes(echo) == std::vector<int32_t>{7}; }));

    mProcess->kill(SIGCONT);
    EXPECT_TRUE(eventually([&] { return notes(mEcho).size() >= sent.size(); }));
    done = true;
    for (std::thread& thread : others) thread.join();
    EXPECT_EQ(notes(mEcho), sent);
}

TEST_F(BinderTest, RefusedOnewayCallLeavesAWarning) {
    Parcel none;
    ASSERT_EQ(mEcho->transact(0x123456, none, nullptr, IBinder::FLAG_ONEWAY), OK);
    EXPECT_TRUE(eventually([&] {
        Parcel data;
        Parcel reply;
        return mEcho->transact(WARNING, data, &reply) == OK &&
               reply.readString16() ==
                   String16("a one-way call with code 1193046 ended with status -74");
    }));
}

/** What the driver and the kernel hold for a process. */
struct Holdings {
    int nodes = 0;
    int refs = 0;
    int files = 0;

    explicit Holdings(pid_t pid) {
        std::ifstream state("/sys/kernel/debug/binder/proc/" + std::to_string(pid));
        EXPECT_TRUE(state) << "is debugfs mounted?";
        for (std::string line; std::getline(state, line);) {
            if (line.rfind("  node ", 0) == 0) ++nodes;
            if (line.rfind("  ref ", 0) == 0) ++refs;
        }
        const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid) + "/fd");
        files = static_cast<int>(std::distance(begin(fds), end(fds)));
    }

    bool operator==(const Holdings& other) const {
        return nodes == other.nodes && refs == other.refs && files == other.files;
    }
};

class Callback : public BBinder {
  public:
    explicit Callback(std::atomic<int>* alive) : mAlive(alive) { ++*mAlive; }
    ~Callback() override { --*mAlive; }

  private:
    std::atomic<int>* const mAlive;
};

TEST_F(BinderTest, ObjectThatWasSentOneWayEndsWithoutAnotherCall) {
    std::atomic<int> alive = 0;
    {
        Parcel data;
        data.writeStrongBinder(new Callback(&alive));
        ASSERT_EQ(mEcho->transact(SAME, data, nullptr, IBinder::FLAG_ONEWAY), OK);
    }
    EXPECT_TRUE(eventually([&] { return alive == 0; }));
}

TEST_F(BinderTest, RegisteringAndUnregisteringLeavesNothingBehind) {
    std::atomic<int> alive = 0;
    const auto registerAndUnregister = [&](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            const sp<IBinder> callback = new Callback(&alive);
            Parcel kept;
            Parcel dropped;
            Parcel reply;
            kept.writeStrongBinder(callback);
            dropped.writeStrongBinder(callback);
            ASSERT_EQ(mEcho->transact(KEEP, kept, nullptr), OK);
            ASSERT_EQ(mEcho->transact(DROP, dropped, &reply), OK);
            ASSERT_TRUE(reply.readBool());
        }
    };
    // What a process needs once only is there after the first rounds.
    registerAndUnregister(500);
    ASSERT_TRUE(eventually([&] { return alive == 0; })) << alive;
    const Holdings here(getpid());
    const Holdings there(mProcess->pid());
    const long memoryHere = residentKilobytes(getpid());
    const long memoryThere = residentKilobytes(mProcess->pid());

    registerAndUnregister(kSanitized ? 1000 : 10000);
    EXPECT_TRUE(eventually([&] { return alive == 0; })) << alive;
    EXPECT_TRUE(eventually([&] { return Holdings(getpid()) == here; }));
    EXPECT_TRUE(eventually([&] { return Holdings(mProcess->pid()) == there; }));
    // In kilobytes: more than a new pool thread takes, less than 10,000 binder objects.
    if (kSanitized) return;
    EXPECT_LT(residentKilobytes(getpid()) - memoryHere, 512);
    EXPECT_LT(residentKilobytes(mProcess->pid()) - memoryThere, 512);
}

TEST_F(BinderTest, ProxyThatComesAndGoesInManyThreadsKeepsItsNotice) {
    std::vector<std::thread> threads;
    std::atomic<int> failures = 0;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const sp<Counter> recipient = new Counter;
            for (int round = 0; round < 1000; ++round) {
                Parcel data;
                Parcel reply;
                if (mEcho->transact(LISTENER, data, &reply) != OK) ++failures;
                const sp<IBinder> listener = reply.readStrongBinder();
                if (listener == nullptr || listener->linkToDeath(recipient) != OK) ++failures;
                if (round % 2 && listener->unlinkToDeath(recipient) != OK) ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);

    Parcel data;
    Parcel reply;
    ASSERT_EQ(mEcho->transact(LISTENER, data, &reply), OK);
    const sp<IBinder> listener = reply.readStrongBinder();
    const sp<Counter> recipient = new Counter;
    ASSERT_EQ(listener->linkToDeath(recipient), OK);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return recipient->deaths == 1; }));
}

TEST_F(BinderTest, DeathReachesEveryLinkOnce) {
    const sp<Counter> twice = new Counter;
    const sp<Counter> once = new Counter;
    const sp<Counter> unlinked = new Counter;
    ASSERT_EQ(mEcho->linkToDeath(twice), OK);
    ASSERT_EQ(mEcho->linkToDeath(twice), OK);
    ASSERT_EQ(mEcho->linkToDeath(unlinked), OK);
    int cookie;
    ASSERT_EQ(mEcho->linkToDeath(once, &cookie, 7), OK);
    EXPECT_EQ(mEcho->unlinkToDeath(once, &cookie, 8), NAME_NOT_FOUND) << "flags differ";
    EXPECT_EQ(mEcho->unlinkToDeath(unlinked), OK);
    EXPECT_EQ(mEcho->unlinkToDeath(unlinked), NAME_NOT_FOUND);
    ASSERT_EQ(mEcho->linkToDeath(unlinked, &cookie), OK);
    wp<IBinder::DeathRecipient> named;
    EXPECT_EQ(mEcho->unlinkToDeath(nullptr, &cookie, 0, &named), OK);
    EXPECT_EQ(named, unlinked);

    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return twice->deaths == 2 && once->deaths == 1; }));
    EXPECT_EQ(unlinked->deaths, 0);
    EXPECT_FALSE(mEcho->isBinderAlive());
    EXPECT_EQ(mEcho->pingBinder(), DEAD_OBJECT);
    EXPECT_EQ(mEcho->linkToDeath(once), DEAD_OBJECT);
    EXPECT_EQ(mEcho->unlinkToDeath(twice), DEAD_OBJECT);
    EXPECT_EQ(twice->deaths, 2);
}

TEST_F(BinderTest, CallInProgressEndsWithTheCallee) {
    std::thread killer([&] {
        std::this_thread::sleep_for(200ms);
        mProcess->kill(SIGKILL);
    });
    Parcel data;
    Parcel reply;
    data.writeInt32(2);
    EXPECT_EQ(mEcho->transact(MEET, data, &reply), DEAD_OBJECT);
    killer.join();
    EXPECT_FALSE(mEcho->isBinderAlive());
}

TEST_F(BinderTest, DumpWritesToTheCallersFile) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const unique_fd reader(ends[0]);
    unique_fd writer(ends[1]);
    Vector<String16> args;
    args.add(String16("one"));
    args.add(String16("two"));
    EXPECT_EQ(mEcho->dump(writer.get(), args), OK);
    writer.reset();
    // The service must have closed its own end for this to return.
    std::string text;
    EXPECT_TRUE(android::base::ReadFdToString(reader.get(), &text));
    EXPECT_EQ(text, "one;two;");
}

TEST_F(BinderTest, FileDescriptorsAreClosedWithTheParcel) {
    const Holdings before(mProcess->pid());
    for (int i = 0; i < 200; ++i) {
        unique_fd file(open("/proc/self/comm", O_RDONLY | O_CLOEXEC));
        Parcel data;
        Parcel reply;
        ASSERT_EQ(data.writeDupFileDescriptor(file.get()), OK);
        file.reset();
        ASSERT_EQ(mEcho->transact(FD_TEXT, data, &reply), OK);
        EXPECT_EQ(reply.readString16(), String16("binder_tests\n"));
    }
    EXPECT_TRUE(eventually([&] { return Holdings(mProcess->pid()).files == before.files; }));
}

TEST_F(BinderTest, ParcelTooLargeForTheCalleeFails) {
    Parcel data;
    Parcel reply;
    ASSERT_NE(data.writeInplace(2 << 20), nullptr);
    EXPECT_EQ(mEcho->transact(ECHO, data, &reply), FAILED_TRANSACTION);
    EXPECT_TRUE(isUp());
}

/** Calls that no generated code would make; each must come back, with whatever status. */
class MalformedCallTest : public BinderTest {
  protected:
    void SetUp() override {
        BinderTest::SetUp();
        Parcel data;
        Parcel reply;
        ASSERT_EQ(mEcho->transact(LISTENER, data, &reply), OK);
        mListener = reply.readStrongBinder();
        ASSERT_NE(mListener, nullptr);
    }

    uint32_t upTo(uint32_t limit) { return mRandom() % (limit + 1); }

    int32_t word() {
        static constexpr int32_t kEdges[] = {-1, 0, 1, 16, 0x10000, INT32_MAX, INT32_MIN};
        return upTo(1) ? kEdges[upTo(std::size(kEdges) - 1)] : static_cast<int32_t>(mRandom());
    }

    void writeItem(Parcel* data) {
        switch (upTo(5)) {
            case 0:
                data->writeInt32(word());
                break;
            case 4:
                writeForgedObject(data, upTo(3), upTo(1) ? 0 : word(), upTo(1) ? 0 : word());
                break;
            case 1:
                data->writeUtf8AsUtf16(std::string(upTo(20), 'x'));
                break;
            case 2:
                data->writeStrongBinder(upTo(1) ? mEcho : mListener);
                break;
            case 3:
                data->writeFileDescriptor(mFile.get());
                break;
            default:
                for (uint32_t i = upTo(20); i > 0; --i) data->writeInt32(word());
        }
    }

    /** One that the driver is not told of, and so does not translate. */
    static void writeForgedObject(Parcel* data, uint32_t type, int32_t handle, int32_t cookie) {
        // "sb*", "sh*", "wh*" and "fd*".
        static constexpr int32_t kTypes[] = {0x73622a85, 0x73682a85, 0x77682a85, 0x66642a85};
        for (const int32_t word : {kTypes[type], 19, handle, 0, cookie, 0, 12}) {
            data->writeInt32(word);
        }
    }

    sp<IBinder> mListener;
    const sp<IBinder> mManager = android::IInterface::asBinder(android::defaultServiceManager());

  private:
    const unique_fd mFile{open("/dev/null", O_RDWR | O_CLOEXEC)};
    std::mt19937 mRandom{20240229};
};

TEST_F(MalformedCallTest, ForgedObjectLeavesTheServiceManagerUp) {
    for (uint32_t type = 0; type < 4; ++type) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(mManager->getInterfaceDescriptor());
        data.writeUtf8AsUtf16(std::string("test.forged"));
        writeForgedObject(&data, type, 0, 0);
        data.writeInt32(0);
        EXPECT_EQ(mManager->transact(IBinder::FIRST_CALL_TRANSACTION + 1, data, &reply),
                  android::BAD_TYPE);
    }
    EXPECT_EQ(checkService(kName), mEcho);
}

TEST_F(MalformedCallTest, RandomItemsLeaveTheCalleesUp) {
    // Neither MEET, which waits for other callers, nor BOUNCE, which is told how often to call.
    static constexpr uint32_t kEchoCodes[] = {ECHO, KEEP,  DROP,     NOTE,
                                              SAME, NOTES, LISTENER, IBinder::DUMP_TRANSACTION};
    for (int i = 0; i < 3000; ++i) {
        const sp<IBinder>& target = i % 3 == 0 ? mEcho : i % 3 == 1 ? mListener : mManager;
        const uint32_t code = target == mEcho ? kEchoCodes[upTo(std::size(kEchoCodes) - 1)]
                                              : IBinder::FIRST_CALL_TRANSACTION + upTo(3);
        Parcel data;
        Parcel reply;
        if (upTo(9)) data.writeInterfaceToken(target->getInterfaceDescriptor());
        for (uint32_t items = upTo(8); items > 0; --items) writeItem(&data);
        ASSERT_NE(target->transact(code, data, &reply), DEAD_OBJECT) << "round " << i;
    }
    EXPECT_TRUE(isUp());
    EXPECT_EQ(checkService(kName), mEcho);
}

TEST(ServiceManagerTest, RefusesWhatCannotBeAService) {
    const sp<IBinder> service = new BBinder;
    EXPECT_NE(addService("", service), OK);
    EXPECT_NE(addService(std::string(128, 'a').c_str(), service), OK);
    EXPECT_NE(addService("test local", service), OK);
    EXPECT_NE(addService("test\u00e4", service), OK);
    EXPECT_NE(addService("test.null", nullptr), OK);
    EXPECT_EQ(checkService("test.null"), nullptr);
}

TEST_F(BinderTest, ServiceManagerKeepsTheLastServiceOfAName) {
    ASSERT_EQ(addService(kName, mEcho), OK) << "added again";
    EXPECT_EQ(checkService(kName), mEcho);
    ASSERT_EQ(addService(std::string(127, 'n').c_str(), mEcho), OK);

    EchoProcess second("test.echo-2/second_one");
    const sp<IBinder> other =
        android::defaultServiceManager()->waitForService(String16("test.echo-2/second_one"));
    ASSERT_NE(other, nullptr);
    ASSERT_EQ(addService(kName, other), OK);
    EXPECT_EQ(checkService(kName), other);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([] { return checkService(std::string(127, 'n')) == nullptr; }));
    EXPECT_EQ(checkService(kName), other) << "the first one's death is not the second one's";
    second.kill(SIGKILL);
    EXPECT_TRUE(eventually([] { return checkService(kName) == nullptr; }));
}

TEST_F(BinderTest, ServiceManagerListsByDumpPriority) {
    using android::IServiceManager;
    const auto manager = android::defaultServiceManager();
    ASSERT_EQ(manager->addService(String16("test.high"), mEcho, false,
                                  IServiceManager::DUMP_FLAG_PRIORITY_HIGH),
              OK);
    const auto lists = [&](const char* name, int priorities) {
        for (const String16& listed : manager->listServices(priorities)) {
            if (listed == String16(name)) return true;
        }
        return false;
    };
    EXPECT_TRUE(lists(kName, IServiceManager::DUMP_FLAG_PRIORITY_ALL));
    EXPECT_TRUE(lists("test.high", IServiceManager::DUMP_FLAG_PRIORITY_ALL));
    EXPECT_TRUE(lists("test.high", IServiceManager::DUMP_FLAG_PRIORITY_HIGH));
    EXPECT_FALSE(lists(kName, IServiceManager::DUMP_FLAG_PRIORITY_HIGH));
}

TEST(ServiceManagerTest, GetServiceWaitsForALateOne) {
    EchoProcess late("test.late");
    EXPECT_NE(android::defaultServiceManager()->getService(String16("test.late")), nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(android::defaultServiceManager()->getService(String16("test.never")), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4s);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], kEchoRole) == 0) return runEcho(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    ProcessState::self()->startThreadPool();
    return RUN_ALL_TESTS();
}
