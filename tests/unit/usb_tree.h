// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "usbdevice/topology_records.h"

namespace android::kus {

/**
 * Adds an entry to /sys/bus/usb/devices, a link as in sysfs, to /sys/devices/controller/`name`,
 * with attributes such as "devnum=5, product=A thing". Every other number that a scan reads is
 * `number`.
 */
void addEntry(const std::string& name, const std::string& attributes = "",
              const std::string& number = "0");

/** Adds an interface such as 1-2:1.0, and the directories below it. */
void addInterface(const std::string& name, int interfaceClass,
                  const std::vector<std::string>& directories = {});

/** Adds a device such as 1-2, without interfaces. */
void addDevice(const std::string& name, int devnum, int vendor = 0x1234, int product = 0x5678);

/** Scans entries, in this order, whatever they lack, and returns what goes to standard error. */
std::string scan(const std::string& names);

/** The path of an entry's attribute or subdirectory. */
std::string sysfsPath(const std::string& entry, const std::string& below);

/** What the device-id map may hold of an interface. */
usbinterface_custom mapRecord(const char* name, int category = 0, int vendor = 0);

}  // namespace android::kus
