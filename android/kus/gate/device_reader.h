// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <optional>
#include <string>
#include <vector>

#include "gate/sysfs_directory.h"

namespace android::kus {

/** An attached device. Its name in sysfs is such as "3-1", or "input4" for an input device. */
struct Device {
    explicit Device(const std::string& sysfsName);

    bool isInput() const { return name[0] == 'i'; }

    const std::string name;
    const SysfsDirectory directory;
};

struct DeviceDescription {
    /** As the service is asked about it. */
    DeviceInfo info;
    /** sysfs names of its interfaces, such as "3-1:1.0", in the order of their numbers. */
    std::vector<std::string> interfaces;
};

/** The USB devices but the root hubs, and the input devices, that sysfs has now. */
std::vector<std::string> deviceNames();

/**
 * Whether the service is to be asked about the device: not about hubs, unless one has an interface
 * that is none, and about input devices on USB and Bluetooth only, as the others are the machine's
 * own. False for one that is gone.
 */
bool isAskedAbout(const Device& device);

/**
 * Nothing while attributes are missing or make no sense. May wait for the kernel to configure the
 * device.
 *
 * The id of an input device is 1000000 + the number in its name, beyond any USB device's (the
 * kernel has 64 buses at most). The kernel never gives a number twice.
 */
std::optional<DeviceDescription> describe(const Device& device);

}  // namespace android::kus
