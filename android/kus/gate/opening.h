// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "gate/device_reader.h"

namespace android::kus {

// How the kernel keeps USB devices closed: Documentation/usb/authorization.rst and
// Documentation/ABI/testing/sysfs-bus-usb. What fails on a device that is gone is no error, what
// fails otherwise is logged.

/** Whether new interfaces behind the root hub get no driver by themselves. */
bool isBusClosed(const Device& rootHub);
void closeBus(const Device& rootHub);

/** Whether all of these interfaces of the device may have drivers. */
bool isOpen(const Device& device, const std::vector<std::string>& interfaces);

/** Returns when the drivers have taken the interfaces. */
void openDevice(const Device& device, const std::vector<std::string>& interfaces);
void closeDevice(const Device& device, const std::vector<std::string>& interfaces);

/**
 * Gives each of these interfaces that has no driver to this one, and to no other: one that the
 * driver does not take stays closed.
 */
void openFor(const std::string& driver, const Device& device,
             const std::vector<std::string>& interfaces);

}  // namespace android::kus
