// SPDX-License-Identifier: Apache-2.0
#include "gate/following.h"

#include <android-base/logging.h>
#include <android-base/strings.h>

#include <set>

#include "gate/kernel_events.h"

namespace android::kus {
namespace {

class Follower {
  public:
    explicit Follower(DeviceTable* devices) : devices_(devices) {}

    [[noreturn]] void run() {
        findDevices();
        while (true) {
            if (const auto event = events_.receive()) {
                handle(*event);
            } else {
                LOG(WARNING) << "kernel events were lost: looking at all devices";
                findDevices();
            }
        }
    }

  private:
    // Devices that were attached or removed without an event that was seen.
    void findDevices() {
        std::set<std::string> known;
        for (const DeviceTable::Pointer& device : devices_->devices()) {
            if (device->directory.read("uevent")) {
                known.insert(device->name);
            } else {
                devices_->remove(device->name);
            }
        }
        for (const std::string& name : deviceNames()) {
            if (known.count(name) == 0) add(name);
        }
    }

    void handle(const KernelEvent& event) {
        const bool usb = event.subsystem == "usb" && event.devtype == "usb_device";
        const bool input = event.subsystem == "input" && base::StartsWith(event.name, "input");
        // A USB device is bound when it is configured and its interfaces have their drivers.
        if ((usb && event.action == "bind") || (input && event.action == "add")) add(event.name);
        if ((usb || input) && event.action == "remove") devices_->remove(event.name);
    }

    void add(const std::string& name) {
        const auto device = std::make_shared<const Device>(name);
        if (isAskedAbout(*device)) devices_->add(device);
    }

    KernelEvents events_;
    DeviceTable* const devices_;
};

}  // namespace

void followKernel(DeviceTable* devices) { Follower(devices).run(); }

}  // namespace android::kus
