// SPDX-License-Identifier: Apache-2.0

// A client of the daemon, for a person to see what clients see.
#include <android/kus/BnKUsbServiceCallback.h>
#include <android/kus/IKUsbService.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <stdio.h>

#include <string>
#include <string_view>

using android::sp;
using android::String16;
using android::binder::Status;
using android::kus::DeviceInfo;
using android::kus::IKUsbService;

namespace {

constexpr char kUsage[] =
    "usage: usb_client list     prints the devices that the daemon has on record\n"
    "       usb_client watch    registers a callback and prints what it is told, until it is "
    "ended\n";

void print(const char* event, const DeviceInfo& device) {
    printf("%s\t%d\t%s\t%04x:%04x\t%s\t%s\t%d\t%s\n", event, device.deviceId,
           device.deviceName.c_str(), device.vendorId, device.productId,
           device.status == 1 ? "enabled" : "disabled", device.reason.c_str(), device.category,
           device.categoryPath.c_str());
    fflush(stdout);
}

class Callback : public android::kus::BnKUsbServiceCallback {
  public:
    Status onDeviceAdded(const DeviceInfo& device) override {
        print("added", device);
        return Status::ok();
    }

    Status onDeviceRemoved(const DeviceInfo& device) override {
        print("removed", device);
        return Status::ok();
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::string_view command = argc == 2 ? argv[1] : "";
    if (command == "--help") {
        fputs(kUsage, stdout);
        return 0;
    }
    if (command != "list" && command != "watch") {
        fputs(kUsage, stderr);
        return 2;
    }
    const auto service = android::interface_cast<IKUsbService>(
        android::defaultServiceManager()->getService(String16("kusbservice")));
    if (service == nullptr) {
        fputs("usb_client: there is no kusbservice\n", stderr);
        return 1;
    }
    if (command == "list") {
        std::vector<DeviceInfo> devices;
        if (!service->getDeviceList(&devices).isOk()) return 1;
        for (const DeviceInfo& device : devices) print("known", device);
        return 0;
    }
    android::ProcessState::self()->startThreadPool();
    if (!service->registerKusCallback(new Callback).isOk()) return 1;
    android::IPCThreadState::self()->joinThreadPool();
}
