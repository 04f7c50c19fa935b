// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <android/kus/BnKUsbServiceCallback.h>

#include <atomic>
#include <optional>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

using android::base::StringPrintf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kQuietMs = 1500;

class CallbacksTest : public DeviceTest {};

int registrationsInLog() {
    return atoi(
        shell("sed -n 's/.*Size of callbacks at [a-zA-Z ]*//p' /data/log/kusd.log | tail -n 1")
            .c_str());
}

std::vector<std::string> lines(Process* client, size_t count) {
    std::vector<std::string> lines;
    while (lines.size() < count) {
        lines.push_back(client->line());
        if (lines.back().empty()) break;
    }
    return lines;
}

TEST_F(CallbacksTest, ClientsHearOfUsbDevicesThatComeAndGo) {
    setRules("whitelist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Client first(1), second(1);
    int id, other;
    {
        const Plugged stick("stick", kStick);
        id = stick.decision().deviceId;
        const Plugged serial("serial", kSerial);
        other = serial.decision().deviceId;
    }
    for (Client* client : {&first, &second}) {
        EXPECT_THAT(lines(client, 4),
                    ElementsAre(StringPrintf("added %d 1", id), StringPrintf("added %d 0", other),
                                StringPrintf("removed %d", other), StringPrintf("removed %d", id)));
    }
}

TEST_F(CallbacksTest, OneUnregisterTakesBackOneRegistration) {
    Client client(2);
    // Once more than it registered: that is a no-op.
    for (const bool registered : {true, false, false}) {
        client.poke();
        EXPECT_EQ(client.line(), "unregistered");
        isAllowed({8});
        if (registered) {
            EXPECT_THAT(lines(&client, 2), ElementsAre("added 99000 1", "removed 99000"));
        }
        EXPECT_EQ(client.line(kQuietMs), "") << "told too often";
    }
}

TEST_F(CallbacksTest, AClientThatIsKilledWhileRegisteredTwiceIsForgotten) {
    const pid_t daemon = daemonPid();
    Client survivor(1);
    {
        const Client victim(2);
        EXPECT_TRUE(eventually([] { return registrationsInLog() == 3; })) << registrationsInLog();
    }
    EXPECT_TRUE(eventually([] { return registrationsInLog() == 1; })) << registrationsInLog();
    isAllowed({8});
    EXPECT_EQ(survivor.line(), "added 99000 1");
    EXPECT_EQ(daemonPid(), daemon);
}

/** Ends processes that a test waits for in vain, so that it goes on, and fails. */
class Deadline : public Process {
  public:
    explicit Deadline(const std::string& pids)
        : Process({"sh", "-c", "sleep 60; kill -KILL " + pids}) {}
    bool passed() const { return ends(0s); }
};

DeviceInfo madeUp(int id, const std::string& name) {
    DeviceInfo device;
    device.deviceName = name;
    device.deviceId = id;
    device.interfaceClassList = {8};
    return device;
}

TEST_F(CallbacksTest, AClientThatTakesNothingDelaysNobody) {
    setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
    Client healthy(1), sleeping(1), hung(1, /*hangs=*/true);
    Process watch({"kusctl", "watch"});
    EXPECT_TRUE(eventually([] { return registrationsInLog() == 4; }));
    const Deadline deadline(StringPrintf("%d %d %d", sleeping.pid(), hung.pid(), watch.pid()));
    std::vector<std::string> told;
    {
        const Stopped stopped(sleeping.pid()), stoppedToo(watch.pid());
        const Plugged stick("stick", kStick);
        told = {StringPrintf("added %d 0", stick.decision().deviceId)};
        stick.expectState(" 0");
        for (int i = 0; i < 30; ++i) {
            EXPECT_FALSE(isAllowed({8}));
            told.insert(told.end(), {"added 99000 0", "removed 99000"});
        }
        EXPECT_EQ(lines(&healthy, told.size()), told);
        ASSERT_FALSE(deadline.passed()) << "decisions or notices waited for a client";
    }
    EXPECT_THAT(healthy.line(), StartsWith("removed "));
    EXPECT_EQ(lines(&sleeping, told.size()), told);
    EXPECT_THAT(sleeping.line(), StartsWith("removed "));
    EXPECT_THAT(watch.line(), HasSubstr("stick"));
}

// Notices for one client together have half a megabyte in the kernel; the kernel refuses more.
TEST_F(CallbacksTest, AFullBufferCostsItsClientAloneItsNotices) {
    constexpr int kDevices = 8;
    const auto errors = [] { return logged("^[^ ]* E .*onDevice\\(Added\\|Removed\\)"); };
    Client healthy(1), sleeping(1);
    const int before = errors();
    const Deadline deadline(std::to_string(sleeping.pid()));
    std::optional<Stopped> stopped(sleeping.pid());
    for (int id = 1; id <= kDevices; ++id) {
        const DeviceInfo device = madeUp(id, std::string(60000, 'n'));
        bool allowed;
        service()->isDeviceAllowed(device, &allowed);
        EXPECT_EQ(healthy.line(), StringPrintf("added %d 1", id));
        service()->updateDeviceList(device, 0);
        EXPECT_EQ(healthy.line(), StringPrintf("removed %d", id));
    }
    ASSERT_FALSE(deadline.passed()) << "decisions or notices waited for a client";
    const int lost = errors() - before;
    EXPECT_GT(lost, 0) << "its buffer was never full, or nothing was logged";
    service()->updateDeviceList(madeUp(9, "last"), 0);
    stopped.reset();
    int heard = 0;
    for (std::string line; !(line = sleeping.line()).empty() && line != "removed 9";) ++heard;
    EXPECT_EQ(heard + lost, 2 * kDevices) << "one line for each lost notice";
}

struct CountedCallback : BnKUsbServiceCallback {
    CountedCallback() { ++alive; }
    ~CountedCallback() { --alive; }
    binder::Status onDeviceAdded(const DeviceInfo&) override { return binder::Status::ok(); }
    binder::Status onDeviceRemoved(const DeviceInfo&) override { return binder::Status::ok(); }
    static inline std::atomic<int> alive = 0;
};

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
