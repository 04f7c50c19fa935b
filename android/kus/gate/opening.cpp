// SPDX-License-Identifier: Apache-2.0
#include "gate/opening.h"

#include <android-base/logging.h>
#include <errno.h>
#include <string.h>

#include <algorithm>

namespace android::kus {
namespace {

constexpr char kDefaultAttribute[] = "interface_authorized_default";
constexpr char kUsbBus[] = "/sys/bus/usb";
constexpr char kDrivers[] = "/sys/bus/usb/drivers/";

/** Logs what has failed with errno, unless the device is gone. */
void report(const Device& device, const std::string& failed) {
    const int error = errno;
    if (device.directory.isGone()) return;
    LOG(ERROR) << failed << " of " << device.name << ": " << strerror(error);
}

void write(const Device& device, const std::string& attribute, const std::string& text) {
    if (!device.directory.write(attribute, text)) report(device, "cannot write " + attribute);
}

void authorize(const Device& device, const std::string& interface, bool authorized) {
    write(device, interface + "/authorized", authorized ? "1" : "0");
}

}  // namespace

bool isBusClosed(const Device& rootHub) { return rootHub.directory.read(kDefaultAttribute) == "0"; }

void closeBus(const Device& rootHub) { write(rootHub, kDefaultAttribute, "0"); }

bool isOpen(const Device& device, const std::vector<std::string>& interfaces) {
    return std::all_of(interfaces.begin(), interfaces.end(), [&](const std::string& interface) {
        return device.directory.read(interface + "/authorized") == "1";
    });
}

// All before the first driver: one may need several interfaces, as those of network adapters do.
void openDevice(const Device& device, const std::vector<std::string>& interfaces) {
    for (const std::string& interface : interfaces) authorize(device, interface, true);
    // By name, so it may be another device's by now. The kernel gives no driver to an interface
    // that is not authorized.
    const SysfsDirectory bus(kUsbBus);
    for (const std::string& interface : interfaces) {
        if (!bus.write("drivers_probe", interface)) report(device, "no driver for " + interface);
    }
}

void closeDevice(const Device& device, const std::vector<std::string>& interfaces) {
    for (const std::string& interface : interfaces) authorize(device, interface, false);
}

// Not by a probe: a device can have the class of one driver, and the ids that another looks for.
void openFor(const std::string& driver, const Device& device,
             const std::vector<std::string>& interfaces) {
    for (const std::string& interface : interfaces) {
        if (device.directory.has(interface + "/driver")) continue;
        authorize(device, interface, true);
        if (!SysfsDirectory(kDrivers + driver).write("bind", interface)) {
            report(device, "no driver for " + interface);
            authorize(device, interface, false);
        }
    }
}

}  // namespace android::kus
