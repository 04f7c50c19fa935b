// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "gate/device_table.h"
#include "kus_test.h"

namespace android::kus {

/** Runs an endless loop, until a fake that it calls ends it. */
inline void runLoop(const std::function<void()>& loop) { std::thread(loop).join(); }

[[noreturn]] inline void endLoop() { pthread_exit(nullptr); }

class GateTest : public KusTest {
  protected:
    /** A device with interfaces of these classes, their directories in its own as in sysfs. */
    static void attach(const std::string& name, const std::string& deviceClass,
                       const Texts& interfaceClasses, int devnum = 15) {
        addEntry(name, "busnum=12, devnum=" + std::to_string(devnum) + ", bDeviceClass=" +
                           deviceClass + ", idVendor=0951, idProduct=1666, product=stick, " +
                           "uevent=, bNumInterfaces= " + std::to_string(interfaceClasses.size()));
        for (size_t i = 0; i < interfaceClasses.size(); ++i) {
            const std::string number = std::to_string(i);
            const std::string interface = name + "/" + name + ":1." + number;
            writeFile(sysfsPath(interface, "bInterfaceNumber"), "0" + number + "\n");
            writeFile(sysfsPath(interface, "bInterfaceClass"), interfaceClasses[i] + "\n");
            writeFile(sysfsPath(interface, "authorized"), "1\n");
        }
    }

    static void detach(const std::string& name) {
        fs::remove_all(fs::canonical(sysfsPath(name, "")));
        fs::remove(std::string(kUsbDevicesPath) + "/" + name);
    }

    /** A mouse on the input bus with this number. */
    static void addMouse(const std::string& name, const std::string& bus = "0003") {
        for (const auto& [attribute, text] :
             std::map<std::string, std::string>{{"uevent", ""},
                                                {"inhibited", "0"},
                                                {"name", "a mouse"},
                                                {"id/bustype", bus},
                                                {"id/vendor", "17ef"},
                                                {"id/product", "6019"},
                                                {"capabilities/key", "1f0000 0 0 0 0"},
                                                {"capabilities/rel", "903"}}) {
            writeFile(inputPath(name, attribute), text + "\n");
        }
    }

    static std::string inputPath(const std::string& name, const std::string& below) {
        return "/sys/class/input/" + name + "/" + below;
    }

    /** The first byte of the `authorized` attribute of the device's first interface. */
    static char isAuthorized(const std::string& name) {
        return readFile(sysfsPath(name, name + ":1.0/authorized"))[0];
    }

    static char isInhibited(const std::string& name) {
        return readFile(inputPath(name, "inhibited"))[0];
    }

    static DeviceTable::Pointer device(const std::string& name) {
        return std::make_shared<const Device>(name);
    }
};

}  // namespace android::kus
