// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/logging.h>
#include <binder/IServiceManager.h>
#include <cutils/properties.h>
#include <string.h>

#include "ku_service/KUsbService.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr char kServiceName[] = "kusbservice";
constexpr char kBuildTypeProperty[] = "ro.build.type";
constexpr char kDebugBuildType[] = "userdebug";

void readBuildType() {
    char buildType[PROPERTY_VALUE_MAX] = "NA";
    // An unset property counts as a debug build.
    property_get(kBuildTypeProperty, buildType, kDebugBuildType);
    if (strcmp(buildType, kDebugBuildType) == 0) isUserDebugBuild = true;
}

bool hasCrashed() {
    std::string status;
    return base::ReadFileToString(statusFilePath, &status) && status == crashStatus;
}

// A file that is refused at start-up is not undone: the rules before its first error are in force,
// and the status file says why. But a crash handler leaves a rewrite alone that it does not know,
// and where that is refused now, the observer does what the crash has kept it from.
void loadRules() {
    const bool afterCrash = hasCrashed();
    Util::createMapFromConfig(configFilePath);
    if (!xml_parse_status) {
        LOG(INFO) << " parsing failed";
        rulesAreLeftByCrash = afterCrash && Util::backupDiffersFromRules();
        return;
    }
    LOG(INFO) << " updating error fle with success";
    Util::updateErrorFile(statusFilePath, "SUCCESS");
    LOG(INFO) << "copying backup ";
    Util::backUpRules();
}

}  // namespace

bool isUserDebugBuild = false;
bool rulesAreLeftByCrash = false;

void KUsbService::Register() {
    LOG(INFO) << " parsing register createmap called";
    readBuildType();
    loadRules();
    const sp<KUsbService> service = new KUsbService();
    LOG(INFO) << "Register called in ku_service";
    const status_t status = defaultServiceManager()->addService(
        String16(kServiceName), service,
        /*allowIsolated=*/false, IServiceManager::DUMP_FLAG_PRIORITY_DEFAULT);
    if (status != OK) LOG(FATAL) << "Could not register KUS" << status;
    LOG(INFO) << "kus service Registered successfully";
    registerFileObserverViaThread();
}

binder::Status KUsbService::registerKusCallback(const sp<IKUsbServiceCallback>& callback) {
    LOG(INFO) << "registerKusCallback called" << callback.get();
    const sp<IBinder> binder = IInterface::asBinder(callback);
    LOG(INFO) << "registerKusCallback binder " << binder.get();
    const sp<CallbackDeathRecipient> recipient = new CallbackDeathRecipient(callback, this);

    // From the link to the entry, so that a client that dies between them finds its entry.
    const std::lock_guard lock(callbacksLock_);
    if (binder->linkToDeath(recipient, nullptr, 0) != OK) {
        LOG(ERROR) << "Failed to link death recipient to binder";
        return binder::Status::ok();
    }
    callbacks_.emplace(binder.get(), recipient);
    // No error: the level makes it show in logs that keep only errors.
    LOG(ERROR) << "Size of callbacks at registerKusCallback " << callbacks_.size();
    if (isUserDebugBuild) {
        for (const auto& [key, value] : callbacks_) {
            LOG(INFO) << "registerKusCallback--: iterating map key:" << key
                      << " value:" << value.get();
        }
    }
    return binder::Status::ok();
}

binder::Status KUsbService::unregisterKusCallback(const sp<IKUsbServiceCallback>& callback) {
    LOG(INFO) << "unregisterKusCallback called" << callback.get();
    const sp<IBinder> binder = IInterface::asBinder(callback);
    LOG(INFO) << "unregisterKusCallback binder" << binder.get();

    const std::lock_guard lock(callbacksLock_);
    const auto [it, end] = callbacks_.equal_range(binder.get());
    if (it == end) {
        LOG(INFO) << "Given callback not registered with this list";
        return binder::Status::ok();
    }
    UnregisterInternal(it);
    LOG(INFO) << "Size of callbacks at unregisterKusCallback" << callbacks_.size();
    if (isUserDebugBuild) {
        for (const auto& [key, value] : callbacks_) {
            // "before" although it lists what is left.
            LOG(INFO) << "unregisterKusCallback--: before erase iterating map key:" << key
                      << " value:" << value.get();
        }
    }
    return binder::Status::ok();
}

bool KUsbService::UnregisterInternal(Callbacks::iterator it) {
    const sp<CallbackDeathRecipient> recipient = it->second;
    callbacks_.erase(it);
    const status_t status =
        IInterface::asBinder(recipient->callback_)->unlinkToDeath(recipient, nullptr, 0);
    if (status != OK) {
        recipient->unregistered_ = status == DEAD_OBJECT;
        LOG(ERROR) << "Failed to unlink death recipient from binder";
        return false;
    }
    LOG(INFO) << "Callback successfully removed from list";
    return true;
}

std::vector<sp<IKUsbServiceCallback>> KUsbService::registeredCallbacks() {
    const std::lock_guard lock(callbacksLock_);
    std::vector<sp<IKUsbServiceCallback>> callbacks;
    callbacks.reserve(callbacks_.size());
    for (const auto& [key, recipient] : callbacks_) callbacks.push_back(recipient->callback_);
    return callbacks;
}

KUsbService::CallbackDeathRecipient::CallbackDeathRecipient(
    const sp<IKUsbServiceCallback>& callback, KUsbService* owner)
    : callback_(callback), owner_(owner) {
    CHECK(callback_.get());
    CHECK(owner_);
}

void KUsbService::CallbackDeathRecipient::binderDied(const wp<IBinder>& who) {
    LOG(INFO) << "Received binderDied";
    const sp<IBinder> binder = IInterface::asBinder(callback_);
    CHECK(who.unsafe_get() == binder.get());
    const std::lock_guard lock(owner_->callbacksLock_);
    // The client died while it unregistered: the entry is gone, and rightly so.
    if (unregistered_) return;
    auto iter = owner_->callbacks_.lower_bound(binder.get());
    if (iter != owner_->callbacks_.end() && iter->first != binder.get()) {
        iter = owner_->callbacks_.end();
    }
    CHECK(iter != owner_->callbacks_.end());
    owner_->callbacks_.erase(iter);
    LOG(INFO) << "Size of callbacks at unregisterKusCallback binderDied "
              << owner_->callbacks_.size();
    LOG(INFO) << "Callback from dead process unregistered";
}

}  // namespace android::kus
