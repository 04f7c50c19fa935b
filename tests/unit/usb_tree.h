// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <vector>

namespace android::kus {

using Attributes = std::map<std::string, std::string>;

/**
 * Adds an entry to /sys/bus/usb/devices, a link as in sysfs, to a directory `name` below `parent`.
 * Attributes get a line feed; the attribute "driver" becomes a link to a driver of that name.
 */
void addEntry(const std::string& name, const Attributes& attributes = {},
              const std::string& parent = "/sys/devices/controller");

/** Adds an interface such as 1-2:1.0, with what a scan reads and the directories below it. */
void addInterface(const std::string& name, int interfaceClass,
                  const std::vector<std::string>& directories = {});

/** Adds a device such as 1-2, with what a scan reads but texts, and without interfaces. */
void addDevice(const std::string& name, int devnum, int vendor = 0x1234, int product = 0x5678);

/** The names in a directory as readdir gives them. */
std::vector<std::string> readerOrder(const std::string& path);

/** The path of an entry's attribute or subdirectory. */
std::string sysfsPath(const std::string& entry, const std::string& below);

}  // namespace android::kus
