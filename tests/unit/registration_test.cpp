// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "fake_service_manager.h"
#include "service_test.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using testing::_;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::StartsWith;

/** Set once: the binder library takes no second one. */
sp<FakeServiceManager> serviceManager() {
    static const sp<FakeServiceManager> manager = [] {
        const sp<FakeServiceManager> fake = new FakeServiceManager();
        setDefaultServiceManager(fake);
        return fake;
    }();
    return manager;
}

/** An object of the daemon's own process: there is nothing to die. */
class LocalCallback : public IKUsbServiceCallbackDefault {
  public:
    IBinder* onAsBinder() override { return binder_.get(); }

  private:
    const sp<IBinder> binder_ = new BBinder();
};

class Registration : public ServiceTest {
  protected:
    Registration() {
        serviceManager()->status = OK;
        serviceManager()->calls.clear();
        serviceManager()->added.clear();
    }
};

TEST_F(Registration, ServiceIsPublishedWithItsRulesInForce) {
    writeFile(configFilePath, "<usbconfig mode=\"default\"/>");
    KUsbService::Register();
    // The observer's thread outlives the test: it must be watching this test's directory.
    std::vector<std::string> log = takeLogUntil("registered successfully file observer");
    log.erase(std::remove_if(log.begin(), log.end(), testing::Matches(HasSubstr("bserver"))),
              log.end());
    EXPECT_THAT(
        log,
        ElementsAre("I  parsing register createmap called", "I attribute--default",
                    "I  updating error fle with success",
                    "I updateErrorFile called with error message : SUCCESS", "I copying backup ",
                    std::string("I  USB xml src path is ") + configFilePath,
                    std::string("I USB xml dest path is ") + backupFilePath,
                    "I <usbconfig mode=\"default\"/>",
                    "I Usb Device config file copied successfully..!!",
                    "I Register called in ku_service", "I kus service Registered successfully"));
    EXPECT_EQ(readFile(statusFilePath), "SUCCESS");
    EXPECT_EQ(readFile(backupFilePath), "<usbconfig mode=\"default\"/>\n");
    EXPECT_THAT(serviceManager()->calls, ElementsAre("kusbservice 8"));
    EXPECT_NE(interface_cast<IKUsbService>(serviceManager()->added), nullptr);
    // Only the service manager keeps it.
    EXPECT_EQ(serviceManager()->added->getStrongCount(), 1);
    EXPECT_TRUE(isUserDebugBuild);
}

TEST_F(Registration, EachRegistrationIsAnEntry) {
    const sp<FakeClient> client = new FakeClient();
    const std::string callback = address(static_cast<IKUsbServiceCallback*>(client.get()));
    const std::string binder = address(static_cast<IBinder*>(client.get()));
    EXPECT_TRUE(service_->registerKusCallback(client).isOk());
    EXPECT_THAT(takeLog(), ElementsAre("I registerKusCallback called" + callback,
                                       "I registerKusCallback binder " + binder,
                                       "E Size of callbacks at registerKusCallback 1"));
    isUserDebugBuild = true;
    service_->registerKusCallback(client);
    const std::vector<std::string> listing = takeLog();
    const std::string entry = "registerKusCallback--: iterating map key:" + binder + " value:0x";
    EXPECT_THAT(listing, ElementsAre(_, _, "E Size of callbacks at registerKusCallback 2",
                                     StartsWith("I " + entry), StartsWith("I " + entry)));
    EXPECT_EQ(client->links(), 2u);

    EXPECT_TRUE(service_->unregisterKusCallback(client).isOk());
    EXPECT_THAT(takeLog(), ElementsAre("I unregisterKusCallback called" + callback,
                                       "I unregisterKusCallback binder" + binder,
                                       "I Callback successfully removed from list",
                                       "I Size of callbacks at unregisterKusCallback1",
                                       // The first entry went, the second is listed.
                                       "I unregisterKusCallback--: before erase" +
                                           listing[4].substr(strlen("I registerKusCallback--:"))));
    EXPECT_EQ(client->links(), 1u);
    isAllowed(usbDevice(1, {8}));
    EXPECT_THAT(client->calls(), ElementsAre("added usb1"));

    service_->unregisterKusCallback(client);
    takeLog();
    EXPECT_TRUE(service_->unregisterKusCallback(client).isOk());
    EXPECT_THAT(takeLog(), ElementsAre(_, _, "I Given callback not registered with this list"));
    isAllowed(usbDevice(2, {8}));
    EXPECT_EQ(client->calls().size(), 1u);
}

TEST_F(Registration, RefusedDeathLinkIsNoRegistration) {
    const sp<FakeClient> client = new FakeClient();
    client->linkStatus = NO_MEMORY;
    for (const sp<IKUsbServiceCallback>& callback :
         {sp<IKUsbServiceCallback>(client), sp<IKUsbServiceCallback>(new LocalCallback())}) {
        takeLog();
        EXPECT_TRUE(service_->registerKusCallback(callback).isOk());
        EXPECT_THAT(takeLog(), ElementsAre(_, _, "E Failed to link death recipient to binder"));
        service_->unregisterKusCallback(callback);
        EXPECT_THAT(takeLog(), Contains("I Given callback not registered with this list"));
        EXPECT_EQ(callback->getStrongCount(), callback == client ? 2 : 1);
    }
}

TEST_F(Registration, FailedUnlinkStillRemovesTheEntry) {
    const sp<FakeClient> client = new FakeClient();
    service_->registerKusCallback(client);
    client->unlinkStatus = NAME_NOT_FOUND;
    takeLog();
    service_->unregisterKusCallback(client);
    EXPECT_THAT(takeLog(), ElementsAre(_, _, "E Failed to unlink death recipient from binder",
                                       "I Size of callbacks at unregisterKusCallback0"));
    isAllowed(usbDevice(1, {8}));
    EXPECT_THAT(client->calls(), IsEmpty());
}

TEST_F(Registration, DeathRemovesOneEntryForEachRegistration) {
    const sp<FakeClient> dying = new FakeClient();
    const sp<FakeClient> other = new FakeClient();
    for (const auto& client : {dying, other, dying}) service_->registerKusCallback(client);
    takeLog();
    dying->die();
    EXPECT_THAT(takeLog(),
                ElementsAre("I Received binderDied",
                            "I Size of callbacks at unregisterKusCallback binderDied 2",
                            "I Callback from dead process unregistered", "I Received binderDied",
                            "I Size of callbacks at unregisterKusCallback binderDied 1",
                            "I Callback from dead process unregistered"));
    isAllowed(usbDevice(1, {8}));
    EXPECT_THAT(dying->calls(), IsEmpty());
    EXPECT_THAT(other->calls(), ElementsAre("added usb1"));
    // The registry held the last reference but ours.
    EXPECT_EQ(dying->getStrongCount(), 1);
}

TEST_F(Registration, ClientsComeGoAndDieWhileDevicesAreAdded) {
    constexpr int kRounds = 100;
    const sp<FakeClient> loyal = new FakeClient();
    service_->registerKusCallback(loyal);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        const sp<FakeClient> client = new FakeClient();
        for (int i = 0; i < kRounds; i++) {
            service_->registerKusCallback(client);
            service_->registerKusCallback(client);
            service_->unregisterKusCallback(client);
            service_->unregisterKusCallback(client);
        }
        EXPECT_EQ(client->links(), 0u);
    });
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; i++) {
            const sp<FakeClient> client = new FakeClient();
            service_->registerKusCallback(client);
            client->die();
        }
    });
    // A client's last word can cross the notice of its death.
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; i++) {
            const sp<FakeClient> client = new FakeClient();
            service_->registerKusCallback(client);
            std::thread death([&] { client->die(); });
            service_->unregisterKusCallback(client);
            death.join();
        }
    });
    for (int id : {1, 2}) {
        threads.emplace_back([&, id] {
            for (int i = 0; i < kRounds; i++) {
                EXPECT_TRUE(isAllowed(usbDevice(id, {8})));
                EXPECT_THAT(deviceList(), testing::SizeIs(Ge(1u)));
                remove(usbDevice(id, {8}));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(loyal->calls().size(), 4u * kRounds);
    EXPECT_THAT(deviceList(), IsEmpty());
    takeLog();
    service_->unregisterKusCallback(loyal);
    EXPECT_THAT(takeLog(), Contains("I Size of callbacks at unregisterKusCallback0"));
}

using RegistrationDeathTest = Registration;

// In a process of its own, because a process registers once.
TEST_F(RegistrationDeathTest, RefusedRulesStopNothingAndAreNotUndone) {
    const std::string rules = "<usbconfig mode=\"whitelist\"><foo/></usbconfig>";
    writeFile(backupFilePath, "the last good rules");
    writeFile(configFilePath, rules);
    property_set("ro.build.type", "user");
    const auto registerService = [] {
        KUsbService::Register();
        const bool published = serviceManager()->calls.size() == 1;
        fputs(base::Join(takeLog(), '\n').c_str(), stderr);
        _exit(published && Util::getMode() == "whitelist" && !isUserDebugBuild ? 0 : 1);
    };
    EXPECT_EXIT(registerService(), testing::ExitedWithCode(0),
                "I  parsing failed\nI Register called in ku_service\n"
                "I kus service Registered successfully\n");
    EXPECT_EQ(readFile(statusFilePath), "INVALID TAG:foo");
    EXPECT_EQ(readFile(backupFilePath), "the last good rules");
    EXPECT_EQ(readFile(configFilePath), rules);
}

TEST_F(RegistrationDeathTest, RefusedServiceIsFatal) {
    writeFile(configFilePath, "<usbconfig mode=\"default\"/>");
    serviceManager()->status = PERMISSION_DENIED;
    EXPECT_EXIT(KUsbService::Register(), KilledBySignal(SIGABRT), "F Could not register KUS-1\n");
    // It came after the rules.
    EXPECT_EQ(readFile(statusFilePath), "SUCCESS");
}

TEST_F(RegistrationDeathTest, BrokenInvariantsAreFatal) {
    const sp<FakeClient> client = new FakeClient();
    const auto recipient = [&] {
        return sp<IBinder::DeathRecipient>(
            new KUsbService::CallbackDeathRecipient(client, service_.get()));
    };
    EXPECT_EXIT(service_->registerKusCallback(nullptr), KilledBySignal(SIGABRT),
                "F Check failed: callback_.get\\(\\) \n");
    EXPECT_EXIT(new KUsbService::CallbackDeathRecipient(client, nullptr), KilledBySignal(SIGABRT),
                "F Check failed: owner_ \n");
    EXPECT_EXIT(recipient()->binderDied(sp<IBinder>(new BBinder())), KilledBySignal(SIGABRT),
                "F Check failed: who.unsafe_get\\(\\) == binder.get\\(\\) \n");
    EXPECT_EXIT(recipient()->binderDied(sp<IBinder>(client)), KilledBySignal(SIGABRT),
                "F Check failed: iter != owner_->callbacks_.end\\(\\) \n");
}

}  // namespace
}  // namespace android::kus
