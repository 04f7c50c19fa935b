// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// What the rules say of a device. Of the daemon it needs the rules alone, so that tools off the
// device decide by the very same code.
namespace android::kus {

/** What the rules look at: fields of a DeviceInfo, or of another record with the same names. */
struct DeviceTraits {
    template <typename Record>
    DeviceTraits(const Record& device)
        : interfaceClassList(device.interfaceClassList),
          deviceClass(device.deviceClass),
          vendorId(device.vendorId),
          productId(device.productId) {}

    /** Codes of the interfaces of a USB device; empty for an input device. The record's own. */
    const std::vector<int32_t>& interfaceClassList;
    /** For an input device its input-source bits. */
    const int32_t deviceClass;
    const int32_t vendorId;
    const int32_t productId;
};

/** The first interface class that is not HID, if any. */
std::optional<int32_t> firstNonHidClass(const DeviceTraits& device);

/**
 * True when no interface is anything but HID, which an empty list is too. Such a device is left to
 * the input subsystem, unless it is a vendor-specific HID.
 */
bool hasOnlyHidInterfaces(const DeviceTraits& device);

/**
 * The answer of the rule tables under `mode`, and its reason. An unknown mode decides like
 * "whitelist". The caller holds ruleTablesLock, and holds it since it read the mode.
 */
bool evaluateRules(const DeviceTraits& device, const std::string& mode, std::string* reason);

}  // namespace android::kus
