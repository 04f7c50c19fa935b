// SPDX-License-Identifier: Apache-2.0

// The binder library and the service manager over the kernel's driver. The other ends of the calls
// are processes of their own: this executable, run again in another role.

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
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
using android::INVALID_OPERATION;
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
constexpr char kClientRole[] = "--client";
constexpr auto kPatience = 20s;

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
    DEATHS,    // ; deaths of kept binders
    NOTE,      // number
    NOTES,     // ; numbers noted, in order
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
            case DEATHS:
                return reply->writeInt32(mCounter->deaths);
            case NOTE: {
                std::lock_guard lock(mLock);
                mNotes.push_back(data.readInt32());
                return OK;
            }
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
};

status_t addService(const char* name, const sp<IBinder>& service) {
    return android::defaultServiceManager()->addService(String16(name), service);
}

sp<IBinder> checkService(const std::string& name) {
    return android::defaultServiceManager()->checkService(String16(name.c_str()));
}

int runEcho(const char* name) {
    if (addService(name, new Echo) != OK) return 1;
    ProcessState::self()->startThreadPool();
    IPCThreadState::self()->joinThreadPool();
    return 1;
}

/** Has the echo service of that name keep one binder twice, and waits to be killed. */
int runClient(const char* name) {
    const sp<IBinder> echo = android::defaultServiceManager()->waitForService(String16(name));
    const sp<IBinder> callback = new BBinder;
    for (int i = 0; i < 2; ++i) {
        Parcel data;
        data.writeStrongBinder(callback);
        if (echo->transact(KEEP, data, nullptr) != OK) return 1;
    }
    if (addService("test.client", callback) != OK) return 1;
    pause();
    return 1;
}

/** This executable in one of the roles, in a process of its own. */
class RoleProcess : public Process {
  public:
    RoleProcess(const char* role, const char* name) : Process({"/proc/self/exe", role, name}) {}
};

class BinderTest : public testing::Test {
  protected:
    static constexpr char kName[] = "test.echo";

    void SetUp() override {
        // The last test's service may be known until the service manager has heard of its death.
        ASSERT_TRUE(eventually([] { return checkService(kName) == nullptr; }));
        mProcess = std::make_unique<RoleProcess>(kEchoRole, kName);
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

TEST_F(BinderTest, OnewayCallDoesNotWaitForItsEnd) {
    Parcel data;
    Parcel reply;
    data.writeInt32(2);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(mEcho->transact(MEET, data, nullptr, IBinder::FLAG_ONEWAY), OK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience / 2);
    ASSERT_EQ(mEcho->transact(MEET, data, &reply), OK);
    EXPECT_TRUE(reply.readBool());
}

TEST_F(BinderTest, OnewayCallsArriveInOrder) {
    constexpr int kCalls = 300;
    std::vector<int32_t> sent;
    for (int i = 0; i < kCalls; ++i) {
        Parcel data;
        data.writeInt32(i);
        ASSERT_EQ(mEcho->transact(NOTE, data, nullptr, IBinder::FLAG_ONEWAY), OK);
        sent.push_back(i);
    }
    std::vector<int32_t> received;
    EXPECT_TRUE(eventually([&] {
        Parcel data;
        Parcel reply;
        return mEcho->transact(NOTES, data, &reply) == OK &&
               reply.readInt32Vector(&received) == OK && received.size() == kCalls;
    }));
    EXPECT_EQ(received, sent);
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

TEST_F(BinderTest, RegisteringAndUnregisteringLeavesNothingBehind) {
    class Callback : public BBinder {
      public:
        explicit Callback(std::atomic<int>* alive) : mAlive(alive) { ++*mAlive; }
        ~Callback() override { --*mAlive; }

      private:
        std::atomic<int>* const mAlive;
    };
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

    registerAndUnregister(10000);
    EXPECT_TRUE(eventually([&] { return alive == 0; })) << alive;
    EXPECT_TRUE(eventually([&] { return Holdings(getpid()) == here; }));
    EXPECT_TRUE(eventually([&] { return Holdings(mProcess->pid()) == there; }));
    // In kilobytes: more than a new pool thread takes, less than 10,000 binder objects.
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

    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return twice->deaths == 2 && once->deaths == 1; }));
    EXPECT_EQ(unlinked->deaths, 0);
    EXPECT_FALSE(mEcho->isBinderAlive());
    EXPECT_EQ(mEcho->pingBinder(), DEAD_OBJECT);
    EXPECT_EQ(mEcho->linkToDeath(once), DEAD_OBJECT);
    EXPECT_EQ(mEcho->unlinkToDeath(twice), DEAD_OBJECT);
    EXPECT_EQ(twice->deaths, 2);
}

TEST_F(BinderTest, UnlinkByCookieNamesTheRecipient) {
    const sp<Counter> recipient = new Counter;
    int cookie;
    ASSERT_EQ(mEcho->linkToDeath(recipient, &cookie), OK);
    wp<IBinder::DeathRecipient> unlinked;
    EXPECT_EQ(mEcho->unlinkToDeath(nullptr, &cookie, 0, &unlinked), OK);
    EXPECT_EQ(unlinked, recipient);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return mEcho->pingBinder() == DEAD_OBJECT; }));
    EXPECT_EQ(recipient->deaths, 0);
}

TEST_F(BinderTest, KilledClientIsNoticedOncePerLink) {
    const auto deaths = [&] {
        Parcel data;
        Parcel reply;
        return mEcho->transact(DEATHS, data, &reply) == OK ? reply.readInt32() : -1;
    };
    RoleProcess client(kClientRole, kName);
    ASSERT_NE(android::defaultServiceManager()->waitForService(String16("test.client")), nullptr);
    EXPECT_EQ(deaths(), 0);
    client.kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return deaths() == 2; })) << deaths();
    EXPECT_TRUE(eventually([&] { return checkService("test.client") == nullptr; }));
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

TEST_F(BinderTest, LocalObjectCannotBeLinkedForDeath) {
    const sp<IBinder> local = new BBinder;
    const sp<Counter> recipient = new Counter;
    EXPECT_EQ(local->linkToDeath(recipient), INVALID_OPERATION);
    EXPECT_EQ(local->unlinkToDeath(recipient), INVALID_OPERATION);
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

TEST_F(BinderTest, WrongInterfaceIsRefused) {
    Parcel request;
    Parcel answer;
    ASSERT_EQ(mEcho->transact(LISTENER, request, &answer), OK);
    const sp<IBinder> listener = answer.readStrongBinder();
    for (const char* token :
         {"", "android.kus.IKUsbService", "android.kus.IKUsbServiceCallback2"}) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(String16(token));
        data.writeParcelable(android::kus::DeviceInfo());
        EXPECT_EQ(listener->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply),
                  android::BAD_TYPE);
    }
}

TEST_F(BinderTest, VectorThatTheDataCannotHoldIsRefused) {
    Parcel request;
    Parcel answer;
    ASSERT_EQ(mEcho->transact(LISTENER, request, &answer), OK);
    const sp<IBinder> listener = answer.readStrongBinder();
    for (const int32_t count : {3, 1 << 20, INT32_MAX}) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(android::kus::IKUsbServiceCallback::descriptor);
        data.writeInt32(1);
        data.writeInt32(1 << 20);
        data.writeUtf8AsUtf16(std::string("stick"));
        data.writeInt32(1001);
        data.writeInt32(0);
        data.writeInt32(count);
        data.writeInt32(8);
        EXPECT_EQ(listener->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply),
                  android::BAD_VALUE);
    }
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
        switch (upTo(4)) {
            case 0:
                data->writeInt32(word());
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

    sp<IBinder> mListener;

  private:
    const unique_fd mFile{open("/dev/null", O_RDWR | O_CLOEXEC)};
    std::mt19937 mRandom{20240229};
};

TEST_F(MalformedCallTest, RandomItemsLeaveTheCalleesUp) {
    const sp<IBinder> manager = android::IInterface::asBinder(android::defaultServiceManager());
    // Neither MEET, which waits for other callers, nor BOUNCE, which is told how often to call.
    static constexpr uint32_t kEchoCodes[] = {ECHO, KEEP,  DROP,     NOTE,
                                              SAME, NOTES, LISTENER, IBinder::DUMP_TRANSACTION};
    for (int i = 0; i < 3000; ++i) {
        const sp<IBinder>& target = i % 3 == 0 ? mEcho : i % 3 == 1 ? mListener : manager;
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

TEST_F(MalformedCallTest, DamagedRecordsLeaveTheCalleeUp) {
    android::kus::DeviceInfo device;
    device.deviceName = "stick";
    device.interfaceClassList = {8, 3, 255};
    device.categoryPath = "sda;";
    for (int i = 0; i < 3000; ++i) {
        Parcel data;
        Parcel reply;
        data.writeInterfaceToken(android::kus::IKUsbServiceCallback::descriptor);
        const size_t start = data.dataPosition();
        data.writeParcelable(device);
        const auto words = static_cast<uint32_t>((data.dataSize() - start) / sizeof(int32_t));
        for (uint32_t damages = 1 + upTo(2); damages > 0; --damages) {
            data.setDataPosition(start + upTo(words - 1) * sizeof(int32_t));
            data.writeInt32(word());
        }
        if (upTo(3) == 0) data.setDataSize(start + upTo(words) * sizeof(int32_t));
        ASSERT_NE(mListener->transact(IBinder::FIRST_CALL_TRANSACTION + upTo(1), data, &reply),
                  DEAD_OBJECT)
            << "round " << i;
    }
    EXPECT_TRUE(isUp());
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

    RoleProcess second(kEchoRole, "test.echo-2/second_one");
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
    RoleProcess late(kEchoRole, "test.late");
    EXPECT_NE(android::defaultServiceManager()->getService(String16("test.late")), nullptr);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(android::defaultServiceManager()->getService(String16("test.never")), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4s);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], kEchoRole) == 0) return runEcho(argv[2]);
    if (argc == 3 && strcmp(argv[1], kClientRole) == 0) return runClient(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    ProcessState::self()->startThreadPool();
    return RUN_ALL_TESTS();
}
