// SPDX-License-Identifier: Apache-2.0

// A service manager that refuses every service, in place of the device's own.

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>
#include <host/os/BnServiceManager.h>
#include <stdio.h>

using android::IPCThreadState;
using android::ProcessState;
using android::binder::Status;

namespace {

class Refusal : public host::os::BnServiceManager {
    Status checkService(const std::string&, android::sp<android::IBinder>*) override {
        return Status::ok();
    }
    Status addService(const std::string&, const android::sp<android::IBinder>&) override {
        return Status::fromExceptionCode(Status::EX_SECURITY);
    }
};

}  // namespace

int main() {
    IPCThreadState::self()->setTheContextObject(new Refusal());
    if (!ProcessState::self()->becomeContextManager(nullptr, nullptr)) return 1;
    puts("refusing");
    fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
}
