// SPDX-License-Identifier: Apache-2.0
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include "kusctl.h"

namespace android::kus {
namespace {

const String16 kServiceName("kusbservice");

}  // namespace

sp<IKUsbService> connectToService() {
    // Asked first, because defaultServiceManager() waits for a service manager without end.
    if (ProcessState::self()->getContextObject(nullptr) == nullptr) {
        fail("no service manager is running: start servicemanager, then kusd");
    }
    const sp<IBinder> binder = defaultServiceManager()->checkService(kServiceName);
    if (binder == nullptr) fail("the service kusbservice is not there: start kusd");
    return interface_cast<IKUsbService>(binder);
}

sp<IKUsbService> waitForService() {
    return interface_cast<IKUsbService>(defaultServiceManager()->waitForService(kServiceName));
}

void expectOk(const binder::Status& status) {
    if (!status.isOk()) {
        fail(std::string("the service did not answer: ") + status.toString8().string());
    }
}

}  // namespace android::kus
