// SPDX-License-Identifier: Apache-2.0
#include "service_test.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace android::kus {

binder::Status FakeClient::onDeviceAdded(const DeviceInfo& device) {
    return record("added ", device);
}

binder::Status FakeClient::onDeviceRemoved(const DeviceInfo& device) {
    return record("removed ", device);
}

// The service ignores what its clients return.
binder::Status FakeClient::record(const char* event, const DeviceInfo& device) {
    whenCalled();
    const std::lock_guard lock(lock_);
    calls_.push_back(event + device.deviceName);
    devices_.push_back(text(device));
    return binder::Status::fromStatusT(callStatus);
}

status_t FakeClient::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie,
                                 uint32_t flags) {
    EXPECT_EQ(cookie, nullptr);
    EXPECT_EQ(flags, 0u);
    const std::lock_guard lock(lock_);
    if (dead_) return DEAD_OBJECT;
    if (linkStatus == OK) recipients_.push_back(recipient);
    return linkStatus;
}

status_t FakeClient::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie,
                                   uint32_t flags, wp<DeathRecipient>* outRecipient) {
    EXPECT_EQ(cookie, nullptr);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(outRecipient, nullptr);
    const std::lock_guard lock(lock_);
    if (dead_) return DEAD_OBJECT;
    if (unlinkStatus != OK) return unlinkStatus;
    const auto it = std::find(recipients_.begin(), recipients_.end(), recipient);
    if (it == recipients_.end()) return NAME_NOT_FOUND;
    recipients_.erase(it);
    return OK;
}

void FakeClient::die() {
    std::vector<wp<DeathRecipient>> recipients;
    {
        const std::lock_guard lock(lock_);
        dead_ = true;
        recipients.swap(recipients_);
    }
    for (const wp<DeathRecipient>& weak : recipients) {
        if (const sp<DeathRecipient> recipient = weak.promote()) recipient->binderDied(this);
    }
}

size_t FakeClient::links() {
    const std::lock_guard lock(lock_);
    return recipients_.size();
}

std::vector<std::string> FakeClient::calls() {
    const std::lock_guard lock(lock_);
    return calls_;
}

std::vector<std::string> FakeClient::devices() {
    const std::lock_guard lock(lock_);
    return devices_;
}

ServiceTest::ServiceTest() { std::filesystem::create_directories("/sys/bus/usb/devices"); }

bool ServiceTest::isAllowed(const DeviceInfo& device) {
    bool allowed = false;
    EXPECT_TRUE(service_->isDeviceAllowed(device, &allowed).isOk());
    return allowed;
}

void ServiceTest::remove(const DeviceInfo& device) {
    EXPECT_TRUE(service_->updateDeviceList(device, 0).isOk());
}

std::vector<DeviceInfo> ServiceTest::deviceList() {
    std::vector<DeviceInfo> devices;
    EXPECT_TRUE(service_->getDeviceList(&devices).isOk());
    return devices;
}

DeviceInfo usbDevice(int32_t id, std::vector<int32_t> interfaceClasses, int32_t vendor,
                     int32_t product) {
    DeviceInfo device;
    device.deviceName = "usb" + std::to_string(id);
    device.deviceId = id;
    device.interfaceClassList = std::move(interfaceClasses);
    device.vendorId = vendor;
    device.productId = product;
    return device;
}

DeviceInfo inputDevice(int32_t id, int32_t sources, int32_t vendor, int32_t product) {
    DeviceInfo device = usbDevice(id, {}, vendor, product);
    device.deviceName = "input" + std::to_string(id);
    device.deviceClass = sources;
    device.deviceType = 1;
    return device;
}

std::string text(const DeviceInfo& device) {
    std::ostringstream text;
    text << device.deviceName << ", id " << device.deviceId << ", class " << device.deviceClass
         << ", interfaces " << testing::PrintToString(device.interfaceClassList) << ", "
         << device.vendorId << ":" << device.productId << ", status " << device.status << ", type "
         << device.deviceType << ", reason " << device.reason << ", category " << device.category
         << " " << device.categoryPath;
    return text.str();
}

std::string address(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
}

}  // namespace android::kus
