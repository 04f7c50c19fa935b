// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <optional>
#include <string>
#include <vector>

#include "gate/sysfs_directory.h"

namespace android::kus {

inline constexpr char kUsbDevices[] = "/sys/bus/usb/devices";

/** An attached device. Its name in sysfs is such as "3-1", "usb3" for a root hub, or "input4". */
struct Device {
    explicit Device(const std::string& sysfsName);

    bool isInput() const { return name[0] == 'i'; }
    bool isRootHub() const { return name[0] == 'u'; }

    const std::string name;
    const SysfsDirectory directory;
};

struct DeviceDescription {
    /** As the service is asked about it. */
    DeviceInfo info;
    /** sysfs names of its interfaces, such as "3-1:1.0", in the order of their numbers. */
    std::vector<std::string> interfaces;
};

/** The USB devices, root hubs included, and the input devices that sysfs has now. */
std::vector<std::string> deviceNames();

/** True when the device says so of itself; what its interfaces are is another question. */
bool callsItselfHub(const Device& device);

/** True when each of its interfaces says so, too. May wait for the kernel to configure it. */
bool isHub(const Device& device);

/**
 * Whether the service is to be asked about the device: not about hubs, and about input devices on
 * USB and Bluetooth only, as the others are the machine's own. False for one that is gone. May wait
 * for the kernel to configure a USB device that calls itself a hub.
 */
bool isAskedAbout(const Device& device);

/**
 * sysfs names of a USB device's interfaces, such as "3-1:1.0". May wait for the kernel to configure
 * it.
 */
std::vector<std::string> interfaceNames(const Device& device);

/**
 * Nothing while attributes are missing or make no sense. May wait for the kernel to configure the
 * device.
 *
 * The id of an input device is 1000000 + the number in its name, beyond any USB device's (the
 * kernel has 64 buses at most). The kernel never gives a number twice.
 */
std::optional<DeviceDescription> describe(const Device& device);

/** True when no interface is of another class. */
bool hasOnlyHids(const DeviceInfo& usbDevice);

}  // namespace android::kus
