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
constexpr char kHungClientRole[] = "--hung-client";
constexpr char kCallerRole[] = "--caller";

constexpr auto kCallingTime = 1s;

class PrintingCallback : public BnKUsbServiceCallback {
    binder::Status onDeviceAdded(const DeviceInfo& device) override {
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
};

class HungCallback : public BnKUsbServiceCallback {
    binder::Status onDeviceAdded(const DeviceInfo&) override { return hang(); }
    binder::Status onDeviceRemoved(const DeviceInfo&) override { return hang(); }

    static binder::Status hang() {
        while (true) pause();
    }
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

int runCaller() {
    const sp<IKUsbService> kus = service();
    puts("ready");
    getchar();
    int calls = 0;
    for (const auto end = std::chrono::steady_clock::now() + kCallingTime;
         std::chrono::steady_clock::now() < end; ++calls) {
        std::vector<DeviceInfo> devices;
        kus->getDeviceList(&devices);
    }
    printf("%d\n", calls);
    return 0;
}

}  // namespace

int runAsClient(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc == 3 && strcmp(argv[1], kClientRole) == 0) {
        return runClient(new PrintingCallback(), atoi(argv[2]));
    }
    if (argc == 3 && strcmp(argv[1], kHungClientRole) == 0) {
        return runClient(new HungCallback(), atoi(argv[2]));
    }
    if (argc == 2 && strcmp(argv[1], kCallerRole) == 0) return runCaller();
    return -1;
}

Client::Client(int registrations, bool hangs)
    : Process({kSelf, hangs ? kHungClientRole : kClientRole, std::to_string(registrations)}) {
    // After a notice, perhaps.
    std::string printed;
    do printed = line();
    while (!printed.empty() && printed != "registered");
    EXPECT_EQ(printed, "registered") << (ends(0s) ? "it has ended" : "it takes too long");
}

Caller::Caller() : Process({kSelf, kCallerRole}) { EXPECT_EQ(line(), "ready"); }

int Caller::callsPerSecond() { return atoi(line().c_str()) / kCallingTime.count(); }

}  // namespace android::kus
