// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <tuple>

#include "policy.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

/** In no class rule, and not restricted. */
constexpr int32_t kUnnamedClass = -1;
constexpr int32_t kMaxUsbId = 0xFFFF;

Device sample(int32_t vendor, int32_t product, int32_t usbClass) {
    Device device;
    device.vendorId = vendor;
    device.productId = product;
    device.interfaceClassList = {usbClass};
    return device;
}

bool comesBefore(const Device& a, const Device& b) {
    const auto key = [](const Device& device) {
        return std::tie(device.vendorId, device.productId, device.deviceType, device.deviceClass,
                        device.interfaceClassList);
    };
    return key(a) < key(b);
}

}  // namespace

std::vector<Device> Rules::samples() const {
    std::vector<Device> devices = {sample(kUnknownId, kUnknownId, kUnnamedClass)};
    for (const auto& [code, line] : classLines_) {
        devices.push_back(sample(kUnknownId, kUnknownId, code));
        if (inputSourceNames.count(code) == 0) continue;
        devices.back().deviceType = 1;
        devices.back().deviceClass = code;
        devices.back().interfaceClassList.clear();
    }
    for (const auto& [ids, line] : productLines_) {
        const auto [vendor, product] = ids;
        if (vendor > kMaxUsbId || product > kMaxUsbId) continue;  // no device has them
        devices.push_back(sample(vendor, kUnknownId, kUnnamedClass));
        if (product != ANY_PRODUCT) devices.push_back(sample(vendor, product, kUnnamedClass));
    }
    return devices;
}

std::vector<Change> changesBetween(Rules* before, Rules* after) {
    std::vector<Device> devices = before->samples();
    for (Device& device : after->samples()) devices.push_back(std::move(device));
    std::sort(devices.begin(), devices.end(), comesBefore);
    std::vector<Change> changes;
    const Device* last = nullptr;
    for (const Device& device : devices) {
        if (last != nullptr && !comesBefore(*last, device)) continue;
        last = &device;
        Change change = {device, before->decide(device), after->decide(device)};
        if (change.before.allowed != change.after.allowed) changes.push_back(std::move(change));
    }
    return changes;
}

}  // namespace android::kus
