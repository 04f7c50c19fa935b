// SPDX-License-Identifier: Apache-2.0
//
// Linked with the daemon's own objects, takes the place of the binder driver and of the service
// manager: the service is asked on standard input. Every line is a list of interface classes,
// answered by a line with a 1 for each that is allowed as a device of its own, and a 0 for each
// that is not.
#include <android/kus/IKUsbService.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <iostream>
#include <sstream>
#include <string>

#include "../unit/fake_service_manager.h"

namespace android {
namespace {

using kus::DeviceInfo;
using kus::IKUsbService;

// Here before main, and never destroyed: threads outlive the static objects.
const auto& serviceManager = *[] {
    auto* manager = new sp<kus::FakeServiceManager>(new kus::FakeServiceManager());
    setDefaultServiceManager(*manager);
    return manager;
}();

bool isAllowed(const sp<IKUsbService>& service, int32_t interfaceClass) {
    DeviceInfo device;
    device.deviceId = 1000 + interfaceClass;
    device.interfaceClassList = {interfaceClass};
    bool allowed = false;
    service->isDeviceAllowed(device, &allowed);
    return allowed;
}

}  // namespace

ProcessState::ProcessState(const char*) {}
ProcessState::~ProcessState() {}

sp<ProcessState> ProcessState::self() {
    static const auto& process = *new sp<ProcessState>(new ProcessState(""));
    return process;
}

void ProcessState::startThreadPool() {}

void ProcessState::giveThreadPoolName() {}

IPCThreadState::IPCThreadState() {}

IPCThreadState* IPCThreadState::self() {
    static auto* const thread = new IPCThreadState();
    return thread;
}

void IPCThreadState::joinThreadPool(bool) {
    const sp<IKUsbService> service = interface_cast<IKUsbService>(serviceManager->added);
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream classes(line);
        std::string answers;
        for (int interfaceClass; classes >> interfaceClass;) {
            answers += isAllowed(service, interfaceClass) ? '1' : '0';
        }
        std::cout << answers << std::endl;
    }
}

}  // namespace android
