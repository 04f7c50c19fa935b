// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <tuple>

#include "policy.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

bool comesBefore(const DeviceFacts& a, const DeviceFacts& b) {
    const auto key = [](const DeviceFacts& device) {
        return std::tie(device.vendorId, device.productId, device.deviceType, device.deviceClass,
                        device.interfaceClassList);
    };
    return key(a) < key(b);
}

}  // namespace

std::vector<DeviceFacts> Rules::samples() const {
    std::vector<DeviceFacts> devices = {sampleOf({})};
    for (const auto& [code, line] : classLines_) devices.push_back(sampleOf({code}));
    for (const auto& [ids, line] : productLines_) {
        const auto [vendor, product] = ids;
        if (vendor > kMaxUsbId || product > kMaxUsbId) continue;  // no device has them
        devices.push_back(sampleOf({{}, vendor}));
        if (product != ANY_PRODUCT) devices.push_back(sampleOf({{}, vendor, product}));
    }
    return devices;
}

std::vector<Change> changesBetween(Rules* before, Rules* after) {
    std::vector<DeviceFacts> devices = before->samples();
    for (DeviceFacts& device : after->samples()) devices.push_back(std::move(device));
    std::sort(devices.begin(), devices.end(), comesBefore);
    std::vector<Change> changes;
    const DeviceFacts* last = nullptr;
    for (const DeviceFacts& device : devices) {
        if (last != nullptr && !comesBefore(*last, device)) continue;
        last = &device;
        Change change = {device, before->decide(device), after->decide(device)};
        if (change.before.allowed != change.after.allowed) changes.push_back(std::move(change));
    }
    return changes;
}

}  // namespace android::kus
