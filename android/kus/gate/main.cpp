// SPDX-License-Identifier: Apache-2.0

// The platform's part towards the daemon: asks it about every USB and input device that is
// attached, tells it what is removed, and keeps refused input devices silent. With --closed no
// interface of a USB device has a driver before the device is allowed, but for those of hubs and of
// devices with nothing but HID interfaces.
#include <android-base/logging.h>
#include <binder/ProcessState.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <thread>

#include "gate/asking.h"
#include "gate/following.h"

namespace {

using android::ProcessState;
using android::kus::DeviceTable;
using android::kus::kUsbDevices;

constexpr int kWrongUse = 2;
constexpr char kClosedOption[] = "--closed";

/** Whether the kernel is to keep devices closed until they are allowed. */
bool isToBeClosed(int argc, char** argv) {
    bool closed = false;
    for (int i = 1; i < argc; ++i) {
        closed = strcmp(argv[i], kClosedOption) == 0;
        if (closed) continue;
        LOG(ERROR) << "unknown argument " << argv[i] << ": usage: kusgate [" << kClosedOption
                   << "]";
        exit(kWrongUse);
    }
    return closed;
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
    const bool closed = isToBeClosed(argc, argv);
    expectUsb();
    startBinderThread();
    DeviceTable devices;
    std::thread(android::kus::askAboutDevices, &devices, closed).detach();
    android::kus::followKernel(&devices, closed);
}
