// SPDX-License-Identifier: Apache-2.0
#include "gate/asking.h"

#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android/kus/IKUsbService.h>
#include <binder/IServiceManager.h>

#include <chrono>
#include <thread>

#include "gate/opening.h"
#include "gate/silencing.h"

namespace android::kus {
namespace {

using std::chrono::milliseconds;

constexpr char kServiceName[] = "kusbservice";
constexpr milliseconds kServicePollInterval(100);

class DeathNotice : public IBinder::DeathRecipient {
  public:
    explicit DeathNotice(DeviceTable* devices) : devices_(devices) {}
    void binderDied(const wp<IBinder>&) override { devices_->wake(); }

  private:
    DeviceTable* const devices_;
};

class Asker {
  public:
    Asker(DeviceTable* devices, bool closed)
        : devices_(devices), closed_(closed), deathNotice_(new DeathNotice(devices)) {}

    /** Returns when the service is dead. */
    void askOneService() {
        connect();
        devices_->startAgain();
        while (IInterface::asBinder(service_)->isBinderAlive()) {
            const DeviceTable::Task task = devices_->nextTask();
            if (task.removed) service_->updateDeviceList(*task.removed, 0);
            if (task.undecided) decideOn(task.undecided);
        }
        LOG(INFO) << "lost " << kServiceName;
    }

  private:
    void connect() {
        const auto found = [this] {
            const auto binder = defaultServiceManager()->checkService(String16(kServiceName));
            if (binder == nullptr || binder->linkToDeath(deathNotice_) != OK) return false;
            service_ = interface_cast<IKUsbService>(binder);
            return true;
        };
        while (!found()) std::this_thread::sleep_for(kServicePollInterval);
        LOG(INFO) << "connected to " << kServiceName;
    }

    void decideOn(const DeviceTable::Pointer& device) {
        if (!isAskedAbout(*device)) return devices_->setDecided(device);
        const auto description = describe(*device);
        if (!description) return devices_->postpone(device);
        if (!devices_->isToBeAskedAbout(device, description->info)) return;
        const auto allowed = closed_ && !device->isInput() ? askAndOpen(*device, *description)
                                                           : ask(*device, description->info);
        if (!allowed) return devices_->postpone(device);
        if (device->isInput()) setSilenced(*device, !*allowed);
        record(*device, description->info, *allowed);
        devices_->setDecided(device);
    }

    // What the driver has just made, before its events are followed.
    void silenceNewInputs() {
        for (const std::string& name : deviceNames()) {
            const Device device(name);
            if (device.isInput() && !devices_->has(name) && isAskedAbout(device)) {
                setSilenced(device, true);
            }
        }
    }

    std::optional<bool> askAndOpen(const Device& device, const DeviceDescription& description) {
        const bool wasOpen = isOpen(device, description.interfaces);
        auto allowed = ask(device, description.info);
        if (allowed == false && !wasOpen && hasOnlyHids(description.info)) {
            // The input question comes for what its drivers make, and a vendor-specific HID is
            // known by them: it gets its answer now.
            openFor("usbhid", device, description.interfaces);
            silenceNewInputs();
            allowed = ask(device, description.info);
            if (!allowed) closeDevice(device, description.interfaces);
        }
        if (allowed == true) openDevice(device, description.interfaces);
        // The service has closed what it could; one with HIDs alone may be left to its inputs.
        if (allowed == false && !hasOnlyHids(description.info)) {
            closeDevice(device, description.interfaces);
        }
        return allowed;
    }

    /** Nothing when the call fails. */
    std::optional<bool> ask(const Device& device, const DeviceInfo& info) {
        bool allowed = false;
        const binder::Status status = service_->isDeviceAllowed(info, &allowed);
        if (status.isOk()) return allowed;
        LOG(ERROR) << "no answer about " << device.name << ": " << status.toString8().c_str();
        return std::nullopt;
    }

    // Without the display name: a device can put line feeds into it.
    static void record(const Device& device, const DeviceInfo& info, bool allowed) {
        const std::string classes = device.isInput() ? base::StringPrintf("0x%x", info.deviceClass)
                                                     : base::Join(info.interfaceClassList, ',');
        LOG(INFO) << (allowed ? "allowed " : "refused ") << device.name << " "
                  << base::StringPrintf("%04x:%04x ", info.vendorId, info.productId) << classes;
    }

    DeviceTable* const devices_;
    const bool closed_;
    const sp<DeathNotice> deathNotice_;
    sp<IKUsbService> service_;
};

}  // namespace

void askAboutDevices(DeviceTable* devices, bool closed) {
    Asker asker(devices, closed);
    while (true) asker.askOneService();
}

}  // namespace android::kus
