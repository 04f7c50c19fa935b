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

/** What the processes under test serve. */
enum EchoCode : uint32_t {
    ECHO = IBinder::FIRST_CALL_TRANSACTION,  // binder; the same
    PRINT,                                   // number, anything
};

class Echo : public BBinder {
  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case ECHO:
                return reply->writeStrongBinder(data.readStrongBinder());
            case PRINT:
                // For another one to overtake this, where one may.
                std::this_thread::yield();
                printf("%d\n", data.readInt32());
                return OK;
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }
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
    setvbuf(stdout, nullptr, _IOLBF, 0);
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

    std::unique_ptr<Process> mProcess;
    sp<IBinder> mEcho;
};

TEST_F(BinderTest, CallsAreAnsweredOrFail) {
    for (const sp<IBinder>& binder : {sp<IBinder>(new BBinder), mEcho}) {
        Parcel data, reply;
        data.writeStrongBinder(binder);
        ASSERT_EQ(mEcho->transact(ECHO, data, &reply), OK);
        EXPECT_EQ(reply.readStrongBinder(), binder);
    }
    Parcel none, tooLarge, reply;
    EXPECT_EQ(mEcho->transact(IBinder::LAST_CALL_TRANSACTION, none, nullptr), UNKNOWN_TRANSACTION);
    ASSERT_NE(tooLarge.writeInplace(2 << 20), nullptr);
    EXPECT_EQ(mEcho->transact(ECHO, tooLarge, &reply), FAILED_TRANSACTION);
    EXPECT_EQ(mEcho->pingBinder(), OK);
}

TEST_F(BinderTest, OnewayCallsWaitForNothingAndComeInOrder) {
    // Makes the pool grow, so that there are threads to overtake one another.
    std::atomic<bool> done = false;
    std::vector<std::thread> others;
    for (int i = 0; i < 4; ++i) {
        others.emplace_back([&] {
            while (!done) mEcho->pingBinder();
        });
    }
    // Until the receiver's buffer is full, which costs its callers these calls alone.
    constexpr int32_t kTooMany = 5000;
    int32_t sent = 0;
    const auto send = [&] {
        Parcel data;
        data.writeInt32(sent);
        data.writeInplace(1020);
        return mEcho->transact(PRINT, data, nullptr, IBinder::FLAG_ONEWAY) == OK;
    };
    mProcess->kill(SIGSTOP);
    while (sent < kTooMany && send()) ++sent;
    EXPECT_LT(sent, kTooMany);

    mProcess->kill(SIGCONT);
    int32_t heard = 0;
    while (heard < sent && mProcess->line() == std::to_string(heard)) ++heard;
    EXPECT_EQ(heard, sent);
    done = true;
    for (std::thread& thread : others) thread.join();
}

TEST_F(BinderTest, ProxyThatComesAndGoesInManyThreadsKeepsItsNotice) {
    mEcho = nullptr;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            const sp<Counter> recipient = new Counter;
            for (int round = 0; round < 250; ++round) {
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

    mProcess->kill(SIGSTOP);
    std::thread caller([this] { EXPECT_EQ(mEcho->pingBinder(), DEAD_OBJECT) << "under way"; });
    std::this_thread::sleep_for(200ms);
    mProcess->kill(SIGKILL);
    caller.join();
    EXPECT_TRUE(eventually([&] { return twice->deaths == 2; }));
    EXPECT_EQ(unlinked->deaths, 0);
    EXPECT_FALSE(mEcho->isBinderAlive());
    EXPECT_EQ(mEcho->linkToDeath(twice), DEAD_OBJECT);
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
        switch (upTo(4)) {
            case 0:
                return void(data->writeUtf8AsUtf16(std::string(upTo(20), 'x')));
            case 1:
                return void(data->writeStrongBinder(mEcho));
            case 2:
                return void(data->writeFileDescriptor(mFile.get()));
            case 3:
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
    Parcel data, reply;
    data.writeInterfaceToken(String16("test.forged"));
    data.writeUtf8AsUtf16(std::string(kName));
    EXPECT_EQ(mManager->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply), BAD_TYPE);
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
    EXPECT_EQ(mEcho->pingBinder(), OK);
    EXPECT_EQ(checkService(kName), mEcho);
}

TEST_F(BinderTest, ServiceManagerKeepsTheLastServiceOfAName) {
    EchoProcess second("test.second");
    const sp<IBinder> other = waitForService("test.second");
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
