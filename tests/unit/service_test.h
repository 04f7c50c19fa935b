// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/BnKUsbServiceCallback.h>

#include <algorithm>
#include <mutex>
#include <sstream>

#include "ku_service/KUsbService.h"
#include "kus_test.h"

namespace android::kus {

/**
 * A client's callback as the service sees it when the client is another process: it can be linked
 * for death, and die.
 */
class FakeClient : public BnKUsbServiceCallback {
  public:
    /** What the next links and calls return. */
    status_t linkStatus = OK, callStatus = OK;
    /** Run inside every call, where a client may call the service. */
    std::function<void()> whenCalled = [] {};
    /** Run when it is dead and nobody has been told. */
    std::function<void()> whenDead = [] {};
    /** The record that came with the last call. */
    DeviceInfo lastDevice;

    /** "added NAME" and "removed NAME", oldest first. */
    Texts calls() {
        const std::lock_guard lock(lock_);
        return calls_;
    }

    size_t links() {
        const std::lock_guard lock(lock_);
        return recipients_.size();
    }

    /** Tells every linked recipient. From now on nothing can be unlinked. */
    void die() {
        std::vector<sp<DeathRecipient>> recipients;
        {
            const std::lock_guard lock(lock_);
            dead_ = true;
            for (const wp<DeathRecipient>& weak : recipients_) recipients.push_back(weak.promote());
            recipients_.clear();
        }
        whenDead();
        for (const sp<DeathRecipient>& recipient : recipients) {
            if (recipient != nullptr) recipient->binderDied(this);
        }
    }

    binder::Status onDeviceAdded(const DeviceInfo& info) override { return record("added ", info); }
    binder::Status onDeviceRemoved(const DeviceInfo& info) override {
        return record("removed ", info);
    }

    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                         uint32_t flags) override {
        EXPECT_TRUE(cookie == nullptr && flags == 0);
        const std::lock_guard lock(lock_);
        if (dead_) return DEAD_OBJECT;
        if (linkStatus == OK) recipients_.push_back(recipient);
        return linkStatus;
    }

    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                           wp<DeathRecipient>*) override {
        EXPECT_TRUE(cookie == nullptr && flags == 0);
        const std::lock_guard lock(lock_);
        if (dead_) return DEAD_OBJECT;
        const auto it = std::find(recipients_.begin(), recipients_.end(), recipient);
        if (it == recipients_.end()) return NAME_NOT_FOUND;
        recipients_.erase(it);
        return OK;
    }

  private:
    binder::Status record(const char* event, const DeviceInfo& device) {
        whenCalled();
        const std::lock_guard lock(lock_);
        calls_.push_back(event + device.deviceName);
        lastDevice = device;
        return binder::Status::fromStatusT(callStatus);
    }

    std::mutex lock_;
    bool dead_ = false;
    std::vector<wp<DeathRecipient>> recipients_;
    Texts calls_;
};

/** A service that no one has registered, on a machine without USB devices. */
class ServiceTest : public KusTest {
  protected:
    ServiceTest() { fs::create_directories("/sys/bus/usb/devices"); }

    bool isAllowed(const DeviceInfo& device) {
        bool allowed = false;
        EXPECT_TRUE(service_->isDeviceAllowed(device, &allowed).isOk());
        return allowed;
    }

    void remove(const DeviceInfo& device) {
        EXPECT_TRUE(service_->updateDeviceList(device, 0).isOk());
    }

    std::vector<DeviceInfo> deviceList() {
        std::vector<DeviceInfo> devices;
        EXPECT_TRUE(service_->getDeviceList(&devices).isOk());
        return devices;
    }

    const sp<KUsbService> service_ = new KUsbService();
    /** Not registered yet. */
    const sp<FakeClient> client_ = new FakeClient();
};

/** A USB device (`deviceType` 0). */
inline DeviceInfo usbDevice(int32_t id, std::vector<int32_t> interfaceClasses, int32_t vendor = 1,
                            int32_t product = 1) {
    DeviceInfo device;
    device.deviceName = "usb" + std::to_string(id);
    device.deviceId = id;
    device.interfaceClassList = std::move(interfaceClasses);
    device.vendorId = vendor;
    device.productId = product;
    return device;
}

/** A device of the input subsystem (`deviceType` 1). */
inline DeviceInfo inputDevice(int32_t id, int32_t sources, int32_t vendor = 1,
                              int32_t product = 1) {
    DeviceInfo device = usbDevice(id, {}, vendor, product);
    device.deviceName = "input" + std::to_string(id);
    device.deviceClass = sources;
    device.deviceType = 1;
    return device;
}

/** Every field of a record, in order. */
inline std::string text(const DeviceInfo& device) {
    std::ostringstream text;
    text << device.deviceName << ", id " << device.deviceId << ", class " << device.deviceClass
         << ", interfaces " << PrintToString(device.interfaceClassList) << ", " << device.vendorId
         << ":" << device.productId << ", status " << device.status << ", type "
         << device.deviceType << ", reason " << device.reason << ", category " << device.category
         << " " << device.categoryPath;
    return text.str();
}

}  // namespace android::kus
