// SPDX-License-Identifier: Apache-2.0
#include "service_test.h"

#include <filesystem>
#include <sstream>

namespace android::kus {

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

}  // namespace android::kus
