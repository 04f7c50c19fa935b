// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <binder/IServiceManager.h>

#include <string>

namespace android::kus {

/** The platform's service manager: keeps the one service that is added. */
class FakeServiceManager : public IServiceManager {
  public:
    status_t addService(const String16& name, const sp<IBinder>& service, bool allowIsolated,
                        int dumpPriority) override {
        lastCall = std::string(String8(name).string()) + (allowIsolated ? " isolated " : " ") +
                   std::to_string(dumpPriority);
        added = service;
        return status;
    }
    sp<IBinder> getService(const String16&) const override { return added; }
    sp<IBinder> checkService(const String16&) const override { return added; }
    Vector<String16> listServices(int) override { return {}; }
    sp<IBinder> waitForService(const String16&) override { return added; }
    bool isDeclared(const String16&) override { return false; }
    IBinder* onAsBinder() override { return nullptr; }

    status_t status = OK;
    std::string lastCall;
    sp<IBinder> added;
};

}  // namespace android::kus
