// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>
#include <unistd.h>

#include "fake_service_manager.h"
#include "service_test.h"

namespace android::kus {
namespace {

class Registration : public ServiceTest {
  protected:
    const sp<FakeServiceManager> manager_ = serviceManager();
};

TEST_F(Registration, ServiceIsPublishedWithItsRulesInForce) {
    writeFile(configFilePath, "<usbconfig mode=\"default\"/>");
    KUsbService::Register();
    // The observer's thread outlives the test: it must be watching this test's directory.
    Texts log = takeLogUntil("I registered successfully file observer");
    log.resize(11);
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
    EXPECT_EQ(manager_->lastCall, "kusbservice 8");
    EXPECT_NE(interface_cast<IKUsbService>(manager_->added), nullptr);
    // Only the service manager keeps it.
    EXPECT_EQ(manager_->added->getStrongCount(), 1);
    EXPECT_TRUE(isUserDebugBuild);
}

TEST_F(Registration, RefusedDeathLinkOrUnlinkLeavesNoEntry) {
    client_->linkStatus = NO_MEMORY;
    EXPECT_TRUE(service_->registerKusCallback(client_).isOk());
    EXPECT_LOG(_, _, "E Failed to link death recipient to binder");
    EXPECT_EQ(client_->getStrongCount(), 1);

    client_->linkStatus = OK;
    service_->registerKusCallback(client_);
    // The last word of a client crosses the notice of its death.
    client_->whenDead = [&] { service_->unregisterKusCallback(client_); };
    takeLog();
    client_->die();
    EXPECT_LOG(_, _, "E Failed to unlink death recipient from binder",
               "I Size of callbacks at unregisterKusCallback0", "I Received binderDied");
    EXPECT_EQ(client_->getStrongCount(), 1);
}

TEST_F(Registration, DeathRemovesOneEntryForEachRegistration) {
    const sp<FakeClient> dying = new FakeClient();
    for (const auto& client : {dying, client_, dying}) service_->registerKusCallback(client);
    takeLog();
    dying->die();
    EXPECT_LOG("I Received binderDied", "I Size of callbacks at unregisterKusCallback binderDied 2",
               "I Callback from dead process unregistered", "I Received binderDied",
               "I Size of callbacks at unregisterKusCallback binderDied 1",
               "I Callback from dead process unregistered");
    isAllowed(usbDevice(1, {8}));
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1"));
    EXPECT_EQ(dying->getStrongCount(), 1);
}

using RegistrationDeathTest = Registration;

// In a process of its own, because a process registers once.
TEST_F(RegistrationDeathTest, RefusedRulesStopNothingAndAreNotUndone) {
    const std::string rules = "<usbconfig mode=\"whitelist\"><foo/></usbconfig>";
    writeFile(configFilePath, rules);
    writeFile(backupFilePath, "the last good rules");
    writeFile(statusFilePath, "SUCCESS");
    property_set("ro.build.type", "user");
    const auto registerService = [&] {
        KUsbService::Register();
        fputs(takeLogText().c_str(), stderr);
        const bool isWrong =
            manager_->added == nullptr || Util::getMode() != "whitelist" || isUserDebugBuild;
        _exit(isWrong ? 1 : rulesAreLeftByCrash ? 2 : 0);
    };
    EXPECT_EXIT(registerService(), ExitedWithCode(0),
                "I  parsing failed\nI Register called in ku_service\n"
                "I kus service Registered successfully\n");
    EXPECT_EQ(readFile(statusFilePath), "INVALID TAG:foo");
    EXPECT_EQ(readFile(backupFilePath), "the last good rules");
    EXPECT_EQ(readFile(configFilePath), rules);
    // Unless a crash came before they were read: then the observer undoes them.
    writeFile(statusFilePath, crashStatus);
    EXPECT_EXIT(registerService(), ExitedWithCode(2), "");
    for (const char* path : {configFilePath, backupFilePath}) writeFile(path, rules + "\n");
    writeFile(statusFilePath, crashStatus);
    EXPECT_EXIT(registerService(), ExitedWithCode(0), "") << "the backup is no other";
}

TEST_F(RegistrationDeathTest, RefusedServiceAndBrokenInvariantsAreFatal) {
    const auto recipient = [&] {
        return sp<IBinder::DeathRecipient>(
            new KUsbService::CallbackDeathRecipient(client_, service_.get()));
    };
    const auto registerRefusedService = [&] {
        manager_->status = PERMISSION_DENIED;
        KUsbService::Register();
    };
    EXPECT_EXIT(registerRefusedService(), KilledBySignal(SIGABRT), "F Could not register KUS-1\n");
    EXPECT_EXIT(service_->registerKusCallback(nullptr), KilledBySignal(SIGABRT),
                "F Check failed: callback_.get\\(\\) \n");
    EXPECT_EXIT(new KUsbService::CallbackDeathRecipient(client_, nullptr), KilledBySignal(SIGABRT),
                "F Check failed: owner_ \n");
    EXPECT_EXIT(recipient()->binderDied(sp<IBinder>(new BBinder())), KilledBySignal(SIGABRT),
                "F Check failed: who.unsafe_get\\(\\) == binder.get\\(\\) \n");
    EXPECT_EXIT(recipient()->binderDied(sp<IBinder>(client_)), KilledBySignal(SIGABRT),
                "F Check failed: iter != owner_->callbacks_.end\\(\\) \n");
}

}  // namespace
}  // namespace android::kus
