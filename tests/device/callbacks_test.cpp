// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <android/kus/BnKUsbServiceCallback.h>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

using android::base::StringPrintf;

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

}  // namespace
}  // namespace android::kus
