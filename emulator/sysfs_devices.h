// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <optional>
#include <string>
#include <vector>

namespace emulator {

/**
 * What the platform says about the USB device with this sysfs name (such as "3-1"). Nothing for
 * hubs, about which the platform doesn't ask, and for a device that is gone or not configured yet.
 */
std::optional<android::kus::DeviceInfo> readUsbDevice(const std::string& name);

/**
 * What the platform says about the input device with this sysfs name (such as "input4"). Nothing
 * unless it is on USB: the machine's own buttons are not attached devices.
 *
 * Its id is 1000000 + the number in its name, beyond any USB device's (the kernel has 64 buses at
 * most). The kernel never gives a number twice.
 */
std::optional<android::kus::DeviceInfo> readInputDevice(const std::string& name);

/** Names of all USB devices but the root hubs. */
std::vector<std::string> usbDeviceNames();

std::vector<std::string> inputDeviceNames();

/** Keeps the input device from sending events, or lets it send them again. */
void setInhibited(const std::string& inputName, bool inhibited);

}  // namespace emulator
