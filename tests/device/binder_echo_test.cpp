// SPDX-License-Identifier: Apache-2.0

// The binder library and the service manager over the kernel's driver. The other ends of the calls
// are processes of their own: this executable, run again in another role.

#include <android-base/unique_fd.h>
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "process.h"

namespace android {
namespace {

using namespace std::chrono_literals;
using base::unique_fd;
using kus::eventually;
using kus::Process;

constexpr char kEchoRole[] = "--echo";

class Counter : public IBinder::DeathRecipient {
  public:
    void binderDied(const wp<IBinder>&) override { ++deaths; }
    std::atomic<int> deaths = 0;
};

/** What the processes under test serve. Arguments and results follow each code. */
enum EchoCode : uint32_t {
    ECHO = IBinder::FIRST_CALL_TRANSACTION,  // string, binder; the same
    NOTE,   // number, anything; -1 is noted before it where another call was not done yet
    NOTES,  // ; numbers noted, in order
};

class Echo : public BBinder {
  public:
    const String16& getInterfaceDescriptor() const override {
        static const String16 descriptor("test.Echo");
        return descriptor;
    }

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case ECHO:
                reply->writeString16(data.readString16());
                return reply->writeStrongBinder(data.readStrongBinder());
            case NOTE:
                note(data.readInt32());
                return OK;
            case NOTES: {
                std::lock_guard lock(mLock);
                return reply->writeInt32Vector(mNotes);
            }
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

    std::mutex mLock;
    std::vector<int32_t> mNotes;
    std::atomic<bool> mNoting = false;
};

status_t addService(const char* name, const sp<IBinder>& service) {
    return defaultServiceManager()->addService(String16(name), service);
}

sp<IBinder> checkService(const char* name) {
    return defaultServiceManager()->checkService(String16(name));
}

sp<IBinder> waitForService(const char* name) {
    return defaultServiceManager()->waitForService(String16(name));
}

int runEcho(const char* name) {
    if (addService(name, new Echo) != OK) return 1;
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
        mEcho = waitForService(kName);
        ASSERT_NE(mEcho, nullptr);
    }

    /** Whether the service answers as it should. */
    bool isUp() {
        Parcel data, reply;
        data.writeString16(String16("up"));
        return mEcho->transact(ECHO, data, &reply) == OK && reply.readString16() == String16("up");
    }

    std::vector<int32_t> notes() {
        Parcel data, reply;
        std::vector<int32_t> noted;
        EXPECT_EQ(mEcho->transact(NOTES, data, &reply), OK);
        EXPECT_EQ(reply.readInt32Vector(&noted), OK);
        return noted;
    }

    std::unique_ptr<Process> mProcess;
    sp<IBinder> mEcho;
};

TEST_F(BinderTest, CallsAreAnsweredOrFail) {
    const std::string text = "h\u00e4\u20ac\U0001F600";
    for (const sp<IBinder>& binder : {sp<IBinder>(new BBinder), mEcho}) {
        Parcel data, reply;
        data.writeUtf8AsUtf16(text);
        data.writeStrongBinder(binder);
        ASSERT_EQ(mEcho->transact(ECHO, data, &reply), OK);
        std::string answer;
        EXPECT_EQ(reply.readUtf8FromUtf16(&answer), OK);
        EXPECT_EQ(answer, text);
        EXPECT_EQ(reply.readStrongBinder(), binder);
    }
    Parcel none, tooLarge, reply;
    EXPECT_EQ(mEcho->transact(IBinder::LAST_CALL_TRANSACTION, none, nullptr), UNKNOWN_TRANSACTION);
    ASSERT_NE(tooLarge.writeInplace(2 << 20), nullptr);
    EXPECT_EQ(mEcho->transact(ECHO, tooLarge, &reply), FAILED_TRANSACTION);
    EXPECT_EQ(mEcho->pingBinder(), OK);
    EXPECT_EQ(mEcho->getInterfaceDescriptor(), String16("test.Echo"));
}

// The bytes of a local object are tested with the others of the calls.
TEST_F(BinderTest, AHandleIsWrittenAsThePlatformDoes) {
    Parcel handle;
    handle.writeStrongBinder(mEcho);
    const auto* words = reinterpret_cast<const int32_t*>(handle.data());
    // "sh*", the least priority, the handle in 8 bytes, no cookie; the system's stability.
    EXPECT_EQ(std::vector<int32_t>(words, words + handle.dataSize() / sizeof(int32_t)),
              (std::vector<int32_t>{0x73682a85, 19, mEcho->remoteBinder()->handle(), 0, 0, 0, 12}));
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
        Parcel data;
        data.writeInt32(number);
        data.writeInplace(payload);
        if (mEcho->transact(NOTE, data, nullptr, IBinder::FLAG_ONEWAY) != OK) return false;
        sent.push_back(number);
        return true;
    };
    // None of them waits for its end: the receiver goes on after 50 of them only.
    for (int i = 0; i < 2000; ++i) {
        if (i % 200 == 100) mProcess->kill(SIGSTOP);
        if (i % 200 == 150) mProcess->kill(SIGCONT);
        EXPECT_TRUE(send(4));
    }
    // A receiver whose buffer is full costs its callers these calls alone.
    mProcess->kill(SIGSTOP);
    while (sent.size() < 10000 && send(4096)) continue;
    EXPECT_LT(sent.size(), 10000u);

    mProcess->kill(SIGCONT);
    EXPECT_TRUE(eventually([&] { return notes().size() >= sent.size(); }));
    done = true;
    for (std::thread& thread : others) thread.join();
    EXPECT_EQ(notes(), sent);
}

TEST_F(BinderTest, ProxyThatComesAndGoesInManyThreadsKeepsItsNotice) {
    mEcho = nullptr;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const sp<Counter> recipient = new Counter;
            for (int round = 0; round < 1000; ++round) {
                const sp<IBinder> proxy = checkService(kName);
                EXPECT_EQ(proxy->linkToDeath(recipient), OK);
                if (round % 2 == 0) continue;
                EXPECT_EQ(proxy->unlinkToDeath(recipient), OK);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    const sp<IBinder> proxy = checkService(kName);
    const sp<Counter> recipient = new Counter;
    ASSERT_EQ(proxy->linkToDeath(recipient), OK);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([&] { return recipient->deaths == 1; }));
}

TEST_F(BinderTest, DeathReachesEveryLinkOnce) {
    const sp<Counter> twice = new Counter;
    const sp<Counter> unlinked = new Counter;
    ASSERT_EQ(mEcho->linkToDeath(twice), OK);
    ASSERT_EQ(mEcho->linkToDeath(twice), OK);
    ASSERT_EQ(mEcho->linkToDeath(unlinked), OK);
    EXPECT_EQ(mEcho->unlinkToDeath(unlinked), OK);
    EXPECT_EQ(mEcho->unlinkToDeath(unlinked), NAME_NOT_FOUND);

    mProcess->kill(SIGSTOP);
    std::thread caller([this] {
        Parcel data, reply;
        EXPECT_EQ(mEcho->transact(NOTES, data, &reply), DEAD_OBJECT) << "under way";
    });
    std::this_thread::sleep_for(200ms);
    mProcess->kill(SIGKILL);
    caller.join();
    EXPECT_TRUE(eventually([&] { return twice->deaths == 2; }));
    EXPECT_EQ(unlinked->deaths, 0);
    EXPECT_FALSE(mEcho->isBinderAlive());
    EXPECT_EQ(mEcho->pingBinder(), DEAD_OBJECT);
    EXPECT_EQ(mEcho->linkToDeath(twice), DEAD_OBJECT);
    EXPECT_EQ(mEcho->unlinkToDeath(twice), DEAD_OBJECT);
}

/** Calls that no generated code would make; each must come back, with whatever status. */
class MalformedCallTest : public BinderTest {
  protected:
    uint32_t upTo(uint32_t limit) { return mRandom() % (limit + 1); }

    int32_t word() {
        static constexpr int32_t kEdges[] = {-1, 0, 1, 16, 0x10000, INT32_MAX, INT32_MIN};
        return upTo(1) ? kEdges[upTo(std::size(kEdges) - 1)] : static_cast<int32_t>(mRandom());
    }

    void writeItem(Parcel* data) {
        switch (upTo(5)) {
            case 0:
                return void(data->writeInt32(word()));
            case 1:
                return void(data->writeUtf8AsUtf16(std::string(upTo(20), 'x')));
            case 2:
                return void(data->writeStrongBinder(mEcho));
            case 3:
                return void(data->writeFileDescriptor(mFile.get()));
            case 4:
                return writeForgedObject(data, upTo(3), upTo(1) ? 0 : word(), upTo(1) ? 0 : word());
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

    const sp<IBinder> mManager = IInterface::asBinder(defaultServiceManager());

  private:
    const unique_fd mFile{open("/dev/null", O_RDWR | O_CLOEXEC)};
    std::mt19937 mRandom{20240229};
};

TEST_F(MalformedCallTest, ForgedObjectsAndTokensAreRefused) {
    for (uint32_t type = 0; type < 4; ++type) {
        Parcel data, reply;
        data.writeInterfaceToken(mManager->getInterfaceDescriptor());
        data.writeUtf8AsUtf16(std::string("test.forged"));
        writeForgedObject(&data, type, 0, 0);
        EXPECT_EQ(mManager->transact(IBinder::FIRST_CALL_TRANSACTION + 1, data, &reply), BAD_TYPE);
    }
    for (const char* token : {"", "test.forged"}) {
        Parcel data, reply;
        data.writeInterfaceToken(String16(token));
        data.writeUtf8AsUtf16(std::string(kName));
        EXPECT_EQ(mManager->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply), BAD_TYPE);
    }
    EXPECT_EQ(checkService(kName), mEcho);
}

TEST_F(MalformedCallTest, RandomItemsLeaveTheCalleesUp) {
    for (int i = 0; i < 3000; ++i) {
        const sp<IBinder>& target = upTo(1) ? mEcho : mManager;
        const uint32_t code =
            upTo(9) ? uint32_t{ECHO} + upTo(5) : uint32_t{IBinder::DUMP_TRANSACTION};
        Parcel data, reply;
        if (upTo(9)) data.writeInterfaceToken(target->getInterfaceDescriptor());
        for (uint32_t items = upTo(8); items > 0; --items) writeItem(&data);
        ASSERT_NE(target->transact(code, data, &reply), DEAD_OBJECT) << "round " << i;
    }
    EXPECT_TRUE(isUp());
    EXPECT_EQ(checkService(kName), mEcho);
}

TEST_F(BinderTest, ServiceManagerKeepsTheLastServiceOfALegalName) {
    for (const std::string& name : {std::string(), std::string(128, 'a'), std::string("a b")}) {
        EXPECT_NE(addService(name.c_str(), mEcho), OK) << name;
    }
    EXPECT_NE(addService("test.null", nullptr), OK);
    EXPECT_EQ(checkService("test.null"), nullptr);
    ASSERT_EQ(addService(kName, mEcho), OK) << "added again";
    EXPECT_EQ(checkService(kName), mEcho);

    const std::string longest = "test-2/" + std::string(120, 'n');
    EchoProcess second(longest.c_str());
    const sp<IBinder> other = waitForService(longest.c_str());
    ASSERT_EQ(addService(kName, other), OK);
    ASSERT_EQ(addService("test.first", mEcho), OK);
    mProcess->kill(SIGKILL);
    EXPECT_TRUE(eventually([] { return checkService("test.first") == nullptr; }));
    EXPECT_EQ(checkService(kName), other) << "the first one's death is not the second one's";
    second.kill(SIGKILL);
    EXPECT_TRUE(eventually([] { return checkService(kName) == nullptr; }));
}

}  // namespace
}  // namespace android

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], android::kEchoRole) == 0) return android::runEcho(argv[2]);
    testing::InitGoogleTest(&argc, argv);
    android::ProcessState::self()->startThreadPool();
    return RUN_ALL_TESTS();
}
