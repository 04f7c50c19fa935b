// SPDX-License-Identifier: Apache-2.0
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <unistd.h>

#include "kusctl.h"

namespace android::kus {
namespace {

const String16 kServiceName("kusbservice");
constexpr char kBinderDriver[] = "/dev/binder";

[[noreturn]] void failAsAbsent(const std::string& what, const std::string& programs) {
    fail(what + ". It may be restarting: try again in a moment. To start it: 'start " + programs +
         "' on a phone, 'services start " + programs + "' in the virtual device");
}

}  // namespace

sp<IKUsbService> connectToService() {
    if (access(kBinderDriver, F_OK) != 0) {
        fail(std::string("there is no ") + kBinderDriver + ": this asks the service, on a device");
    }
    // Asked first, because defaultServiceManager() waits for a service manager without end.
    if (ProcessState::self()->getContextObject(nullptr) == nullptr) {
        failAsAbsent("no service manager is running", "servicemanager kusd");
    }
    const sp<IKUsbService> service = findService();
    if (service == nullptr) failAsAbsent("the service kusbservice is not there", "kusd");
    return service;
}

sp<IKUsbService> findService() {
    return interface_cast<IKUsbService>(defaultServiceManager()->checkService(kServiceName));
}

void expectServiceManager() {
    if (IInterface::asBinder(defaultServiceManager())->pingBinder() != OK) {
        fail("the service manager died, and with it the way to the service: run this again");
    }
}

std::vector<DeviceInfo> recordedDevices() {
    std::vector<DeviceInfo> devices;
    expectOk(connectToService()->getDeviceList(&devices));
    return devices;
}

void failAsUnrecorded(int32_t id) {
    fail("no device " + std::to_string(id) + " is recorded: see 'kusctl list'");
}

void expectOk(const binder::Status& status) {
    if (!status.isOk()) {
        fail(std::string("the service did not answer: ") + status.toString8().string());
    }
}

}  // namespace android::kus
