// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <string>

namespace android::kus {

/**
 * True when no interface is anything but HID, which an empty list is too. Such a device is left to
 * the input subsystem, unless it is a vendor-specific HID.
 */
bool hasOnlyHidInterfaces(const DeviceInfo& device);

/**
 * The answer of the rule tables under `mode`, and its reason. An unknown mode decides like
 * "whitelist". The caller holds ruleTablesLock, and holds it since it read the mode.
 */
bool evaluateRules(const DeviceInfo& device, const std::string& mode, std::string* reason);

}  // namespace android::kus
