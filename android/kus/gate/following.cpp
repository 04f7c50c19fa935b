// SPDX-License-Identifier: Apache-2.0
#include "gate/following.h"

#include <android-base/logging.h>
#include <android-base/strings.h>
#include <string.h>

#include <thread>

#include "gate/kernel_events.h"
#include "gate/opening.h"
#include "gate/silencing.h"

namespace android::kus {
namespace {

// "usb3" for "3-0:1.0", "3-1" for "3-1:1.0".
std::string ownerOf(const std::string& interface) {
    const std::string device = interface.substr(0, interface.find(':'));
    return base::EndsWith(device, "-0") ? "usb" + device.substr(0, device.size() - 2) : device;
}

class Follower {
  public:
    Follower(DeviceTable* devices, bool closed) : devices_(devices), closed_(closed) {}

    [[noreturn]] void run() {
        if (closed_) {
            closeBuses();
            closeHids();
        }
        findDevices();
        while (true) {
            if (const auto event = events_.receive()) {
                handle(*event);
            } else {
                LOG(WARNING) << "kernel events were lost: asking about all devices again";
                devices_->decideAgain();
                if (closed_) closeBuses();
                findDevices();
            }
        }
    }

  private:
    // Devices that were attached or removed without an event that was seen.
    void findDevices() {
        for (const DeviceTable::Pointer& device : devices_->devices()) {
            if (device->directory.isGone()) devices_->remove(device->name);
        }
        for (const std::string& name : deviceNames()) {
            openIfHub(name);
            add(name);
        }
    }

    void handle(const KernelEvent& event) {
        const bool added = event.action == "add";
        const bool usb = event.subsystem == "usb" && event.devtype == "usb_device";
        const bool input = event.subsystem == "input" && base::StartsWith(event.name, "input");
        if (closed_ && usb && added && Device(event.name).isRootHub()) closeBuses();
        // A USB device is bound when it is configured and its interfaces have their drivers, or
        // stay without while it is closed.
        if ((usb && event.action == "bind") || (input && added)) add(event.name);
        if ((usb || input) && event.action == "remove") devices_->remove(event.name);
        if (event.devtype == "usb_interface" && added) handleNewInterface(ownerOf(event.name));
    }

    // Interfaces come again, without a new device, after a change of its configuration or its
    // authorization; those of a root hub after its controller has left the host role.
    void handleNewInterface(const std::string& owner) {
        openIfHub(owner);
        if (!devices_->has(owner)) return;
        devices_->remove(owner);
        add(owner);
    }

    void add(const std::string& name) {
        const auto device = std::make_shared<const Device>(name);
        if (device->isRootHub() || device->directory.isGone()) return;
        if (device->isInput() && !isAskedAbout(*device)) return;
        if (closed_ && device->isInput() && !devices_->has(name)) setSilenced(*device, true);
        devices_->add(device);
    }

    // All buses first, so that nothing gets a driver behind one while another is looked at.
    void closeBuses() {
        std::vector<std::string> opened;
        for (const std::string& name : deviceNames()) {
            const Device device(name);
            if (!device.isRootHub() || isBusClosed(device)) continue;
            closeBus(device);
            opened.push_back(name);
        }
        for (const std::string& name : opened) closeDevicesOn(name.substr(strlen("usb")));
    }

    void closeDevicesOn(const std::string& bus) {
        for (const std::string& name : deviceNames()) {
            const Device device(name);
            if (!base::StartsWith(name, bus + "-") || isHub(device)) continue;
            closeDevice(device, interfaceNames(device));
            devices_->remove(name);
        }
    }

    void closeHids() {
        for (const std::string& name : deviceNames()) {
            const Device device(name);
            const auto description = device.isInput() ? std::nullopt : describe(device);
            if (description && hasOnlyHids(description->info)) {
                closeDevice(device, description->interfaces);
            }
        }
    }

    // For what is behind it to be seen. On a thread of its own: the kernel asks the hub, and waits
    // for what it says.
    void openIfHub(const std::string& name) {
        if (!closed_ || !callsItselfHub(Device(name))) return;
        std::thread([name] {
            const Device device(name);
            if (isHub(device)) openFor("hub", device, interfaceNames(device));
        }).detach();
    }

    KernelEvents events_;
    DeviceTable* const devices_;
    const bool closed_;
};

}  // namespace

void followKernel(DeviceTable* devices, bool closed) { Follower(devices, closed).run(); }

}  // namespace android::kus
