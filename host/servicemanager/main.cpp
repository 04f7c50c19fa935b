// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <host/os/BnServiceManager.h>

#include <algorithm>
#include <map>
#include <string>

using android::IBinder;
using android::IPCThreadState;
using android::ProcessState;
using android::sp;
using android::wp;
using android::binder::Status;

namespace {

constexpr size_t kMaxNameLength = 127;

bool isLegalName(const std::string& name) {
    return !name.empty() && name.size() <= kMaxNameLength &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || c == '-' || c == '.' || c == '/';
           });
}

/** Runs on one thread only: calls and death notices come one after the other. */
class ServiceManager : public host::os::BnServiceManager, public IBinder::DeathRecipient {
  public:
    Status checkService(const std::string& name, sp<IBinder>* service) override {
        const auto found = mServices.find(name);
        *service = found == mServices.end() ? nullptr : found->second;
        return Status::ok();
    }

    Status addService(const std::string& name, const sp<IBinder>& binder) override {
        if (!isLegalName(name)) {
            return Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "illegal service name");
        }
        if (binder->linkToDeath(this) != android::OK) {
            return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "the service is dead");
        }
        sp<IBinder>& service = mServices[name];
        if (service != nullptr) service->unlinkToDeath(this);
        service = binder;
        return Status::ok();
    }

    void binderDied(const wp<IBinder>& who) override {
        for (auto it = mServices.begin(); it != mServices.end();) {
            it = who == it->second ? mServices.erase(it) : std::next(it);
        }
    }

  private:
    std::map<std::string, sp<IBinder>> mServices;
};

}  // namespace

int main() {
    const sp<ProcessState> process = ProcessState::self();
    process->setThreadPoolMaxThreadCount(0);
    IPCThreadState::self()->setTheContextObject(new ServiceManager);
    if (!process->becomeContextManager(nullptr, nullptr)) {
        PLOG(FATAL) << "cannot become the context manager";
    }
    IPCThreadState::self()->joinThreadPool();
}
