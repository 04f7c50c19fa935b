// SPDX-License-Identifier: Apache-2.0
#include <android/kus/BnKUsbServiceCallback.h>
#include <binder/ProcessState.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "device_test.h"
#include "process.h"

namespace android::kus {
namespace {

constexpr char kSelf[] = "/proc/self/exe";
constexpr char kClientRole[] = "--client";
class PrintingCallback : public BnKUsbServiceCallback {
  public:
    explicit PrintingCallback(bool hangs) : hangs_(hangs) {}

  private:
    binder::Status onDeviceAdded(const DeviceInfo& device) override {
        while (hangs_) pause();
        std::vector<DeviceInfo> devices;
        if (service()->getDeviceList(&devices).isOk()) {
            printf("added %d %d\n", device.deviceId, device.status);
        }
        return binder::Status::ok();
    }

    binder::Status onDeviceRemoved(const DeviceInfo& device) override {
        printf("removed %d\n", device.deviceId);
        return binder::Status::ok();
    }

    const bool hangs_;
};

int runClient(const sp<IKUsbServiceCallback>& callback, int registrations) {
    ProcessState::self()->startThreadPool();
    for (int i = 0; i < registrations; ++i) service()->registerKusCallback(callback);
    puts("registered");
    while (getchar() != EOF) {
        service()->unregisterKusCallback(callback);
        puts("unregistered");
    }
    return 0;
}

}  // namespace

int runAsClient(int argc, char** argv) {
    if (argc != 4 || strcmp(argv[1], kClientRole) != 0) return -1;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    return runClient(new PrintingCallback(atoi(argv[3])), atoi(argv[2]));
}

Client::Client(int registrations, bool hangs)
    : Process({kSelf, kClientRole, std::to_string(registrations), std::to_string(hangs)}) {
    // After a notice, perhaps.
    std::string printed;
    do printed = line();
    while (!printed.empty() && printed != "registered");
    EXPECT_EQ(printed, "registered") << (ends(0s) ? "it has ended" : "it takes too long");
}

}  // namespace android::kus
