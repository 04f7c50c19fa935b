// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <signal.h>

#include <atomic>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

using android::base::StringPrintf;

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

TEST_F(CallbacksTest, InputDevicesComeAndGoWithoutACallback) {
    Client client(1);
    DeviceInfo keyboard;
    keyboard.deviceName = "silent";
    keyboard.deviceId = 77001;
    keyboard.deviceType = 1;
    bool allowed;
    service()->isDeviceAllowed(keyboard, &allowed);
    service()->updateDeviceList(keyboard, 0);
    EXPECT_EQ(client.line(kQuietMs), "");
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
