// SPDX-License-Identifier: Apache-2.0
#include "usb_tree.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include <sstream>

#include "kus_test.h"
#include "usbdevice/UsbDevice.h"

using android::base::StringPrintf;

namespace android::kus {

namespace {

constexpr char kNumbers[] =
    "bAlternateSetting bConfigurationValue bDeviceClass bDeviceProtocol bDeviceSubClass "
    "bInterfaceClass bInterfaceNumber bInterfaceProtocol bInterfaceSubClass bMaxPacketSize0 "
    "bNumConfigurations bNumEndpoints bNumInterfaces bcdDevice bmAttributes configuration devnum "
    "idProduct idVendor maxchild rx_lanes tx_lanes";

}  // namespace

void addEntry(const std::string& name, const std::string& attributes, const std::string& number) {
    const std::string directory = "/sys/devices/controller/" + name + "/";
    for (const std::string& attribute : base::Split(kNumbers, " ")) {
        writeFile(directory + attribute, number + "\n");
    }
    std::istringstream list(attributes);
    for (std::string item; std::getline(list >> std::ws, item, ',');) {
        const size_t equals = item.find('=');
        writeFile(directory + item.substr(0, equals), item.substr(equals + 1) + "\n");
    }
    fs::create_directories(kUsbDevicesPath);
    fs::create_directory_symlink(directory, fs::path(kUsbDevicesPath) / name);
}

void addInterface(const std::string& name, int interfaceClass, const Texts& directories) {
    addEntry(name, StringPrintf("authorized=1, bInterfaceClass=%02x", interfaceClass));
    for (const std::string& directory : directories) {
        fs::create_directories(sysfsPath(name, directory));
    }
}

void addDevice(const std::string& name, int devnum, int vendor, int product) {
    addEntry(name, StringPrintf("authorized=1, devnum=%d, idVendor=%04x, idProduct=%04x", devnum,
                                vendor, product));
}

std::string scan(const std::string& names) {
    return stderrOf([&] {
        for (const std::string& name : base::Split(names, " ")) {
            UsbDevice::inspect_bus_entry(name.c_str());
        }
        UsbDevice::connect_devices();
    });
}

std::string sysfsPath(const std::string& entry, const std::string& below) {
    return std::string(kUsbDevicesPath) + "/" + entry + "/" + below;
}

usbinterface_custom mapRecord(const char* name, int category, int vendor) {
    usbinterface_custom record = {};
    strcpy(record.name, name);
    record.category = category;
    record.idVendor = vendor;
    return record;
}

}  // namespace android::kus
