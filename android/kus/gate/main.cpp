// SPDX-License-Identifier: Apache-2.0

// The platform's part towards the daemon: asks it about every USB and input device that is
// attached, tells it what is removed, and keeps refused input devices silent.
#include <android-base/logging.h>
#include <binder/ProcessState.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <thread>

#include "gate/asking.h"
#include "gate/following.h"

namespace {

using android::ProcessState;
using android::kus::DeviceTable;

constexpr int kWrongUse = 2;
constexpr char kUsbDevices[] = "/sys/bus/usb/devices";

void expectNoArguments(int argc, char** argv) {
    if (argc == 1) return;
    LOG(ERROR) << "unknown argument " << argv[1] << ": kusgate takes none";
    exit(kWrongUse);
}

void expectUsb() {
    struct stat st;
    if (stat(kUsbDevices, &st) == 0 && S_ISDIR(st.st_mode)) return;
    LOG(ERROR) << "there is no " << kUsbDevices << ": sysfs is not mounted or has no USB";
    exit(EXIT_FAILURE);
}

// Notices of the service's death come on a binder thread.
void startBinderThread() {
    ProcessState::self()->setThreadPoolMaxThreadCount(0);
    ProcessState::self()->startThreadPool();
}

}  // namespace

int main(int argc, char** argv) {
    expectNoArguments(argc, argv);
    expectUsb();
    startBinderThread();
    DeviceTable devices;
    std::thread(android::kus::askAboutDevices, &devices).detach();
    android::kus::followKernel(&devices);
}
