// SPDX-License-Identifier: Apache-2.0
#include "usb_machine.h"

#include <android-base/logging.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>

#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace fs = std::filesystem;

namespace android::kus {
namespace {

// What a scan reads of each entry.
const std::vector<std::string> kBusAttributes = {
    "devnum", "bDeviceClass", "idProduct", "idVendor", "maxchild", "speed", "rx_lanes", "tx_lanes"};
const std::vector<std::string> kDeviceAttributes = {
    "bDeviceClass",    "bDeviceProtocol", "bDeviceSubClass",
    "bMaxPacketSize0", "bMaxPower",       "bNumConfigurations",
    "bNumInterfaces",  "bcdDevice",       "bmAttributes",
    "configuration",   "devnum",          "idProduct",
    "idVendor",        "maxchild",        "manufacturer",
    "product",         "serial",          "version",
    "speed",           "rx_lanes",        "tx_lanes"};
const std::vector<std::string> kInterfaceAttributes = {"bAlternateSetting",  "bInterfaceClass",
                                                       "bInterfaceNumber",   "bInterfaceProtocol",
                                                       "bInterfaceSubClass", "bNumEndpoints"};

struct InterfaceKind {
    int interfaceClass;
    const char* driver;
    /** What its driver makes appear below it. */
    const char* directory;
    const char* subdirectory;
};
constexpr InterfaceKind kKinds[] = {{2, "cdc_ether", "net", "usb0"},
                                    {8, "usb-storage", nullptr, nullptr},
                                    {3, "usbhid", "0003:046D:C31C.0001", "input"}};

const InterfaceKind& kindOf(int interface) { return kKinds[interface % std::size(kKinds)]; }

Attributes attributes(const std::vector<std::string>& names, Attributes special) {
    for (const std::string& name : names) special.emplace(name, "1");
    return special;
}

void addInterfaceOf(const std::string& device, int number) {
    const InterfaceKind& kind = kindOf(number);
    const std::string name = device + ":1." + std::to_string(number);
    addEntry(name, attributes(kInterfaceAttributes,
                              {{"bInterfaceClass", std::to_string(kind.interfaceClass)},
                               {"bInterfaceNumber", std::to_string(number)},
                               {"driver", kind.driver}}));
    if (kind.directory != nullptr) {
        fs::create_directories(fs::path(sysfsPath(name, kind.directory)) / kind.subdirectory);
    }
}

void readAttribute(const char* path) {
    char text[64];
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (read(fd, text, sizeof(text)) <= 0) PLOG(FATAL) << path;
    close(fd);
}

void readDirectory(const char* path, bool toTheEnd) {
    char entries[32768];
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) PLOG(FATAL) << path;
    while (syscall(SYS_getdents64, fd, entries, sizeof(entries)) > 0 && toTheEnd) continue;
    close(fd);
}

void readLink(const char* path) {
    char target[4096];
    if (readlink(path, target, sizeof(target)) <= 0) PLOG(FATAL) << path;
}

}  // namespace

UsbMachine::UsbMachine(int devices, int interfacesPerDevice) {
    makeMachineWithoutUsb();
    for (const std::string bus : {"1", "2", "3", "4"}) {
        addEntry("usb" + bus, attributes(kBusAttributes, {}));
        addEntry(bus + "-0:1.0", attributes(kInterfaceAttributes, {{"driver", "hub"}}));
    }
    fs::create_symlink("../../bus/platform/drivers/xhci-hcd", "/sys/devices/controller/driver");
    for (int i = 0; i < devices; ++i) {
        std::string name = "1-" + std::to_string(i / 8 + 1);
        if (i % 8 != 0) name += "." + std::to_string(i % 8);
        addEntry(name, attributes(kDeviceAttributes, {{"devnum", std::to_string(i + 2)},
                                                      {"product", "A device"},
                                                      {"driver", "usb"}}));
        for (int number = 0; number < interfacesPerDevice; ++number) addInterfaceOf(name, number);
    }
    lastDevice_.deviceName = "A device";
    lastDevice_.deviceId = 1000 + devices + 1;
    for (int number = 0; number < interfacesPerDevice; ++number) {
        lastDevice_.interfaceClassList.push_back(kindOf(number).interfaceClass);
    }
    planReads();
}

void UsbMachine::planReads() {
    const std::vector<std::string> entries = readerOrder(kUsbDevicesPath);
    reads_.push_back({Read::Kind::directory, kUsbDevicesPath});
    for (const std::string& entry : entries) {
        const bool isBus = entry.front() == 'u';
        const bool isInterface = entry.find(':') != std::string::npos;
        for (const std::string& attribute : isBus         ? kBusAttributes
                                            : isInterface ? kInterfaceAttributes
                                                          : kDeviceAttributes) {
            reads_.push_back({Read::Kind::attribute, sysfsPath(entry, attribute)});
        }
        reads_.push_back({Read::Kind::link, sysfsPath(entry, isBus ? "../driver" : "driver")});
    }
    for (const std::string& entry : entries) {
        if (entry.find(':') != std::string::npos) planCategorisation(entry);
    }
}

void UsbMachine::planCategorisation(const std::string& interface) {
    // A root hub's interface has no category.
    if (interface.find("-0:") != std::string::npos) return;
    const InterfaceKind& kind = kindOf(std::stoi(interface.substr(interface.rfind('.') + 1)));
    if (kind.directory == nullptr) return;
    // A network adapter's directory is left as soon as its name is found; a HID device's is read to
    // the end for what may follow.
    const bool isNetwork = kind.interfaceClass == 2;
    reads_.push_back({isNetwork ? Read::Kind::startOfDirectory : Read::Kind::directory,
                      sysfsPath(interface, "")});
    reads_.push_back({Read::Kind::startOfDirectory, sysfsPath(interface, kind.directory)});
}

void UsbMachine::readBare() const {
    for (const Read& read : reads_) {
        switch (read.kind) {
            case Read::Kind::attribute:
                readAttribute(read.path.c_str());
                break;
            case Read::Kind::link:
                readLink(read.path.c_str());
                break;
            case Read::Kind::directory:
            case Read::Kind::startOfDirectory:
                readDirectory(read.path.c_str(), read.kind == Read::Kind::directory);
        }
    }
}

void makeMachineWithoutUsb() {
    for (const char* path : {"/sys/bus", "/sys/devices"}) fs::remove_all(path);
    fs::create_directories(kUsbDevicesPath);
}

void scanEntries() {
    DIR* dir = opendir(kUsbDevicesPath);
    while (const dirent* entry = readdir(dir)) UsbDevice::inspect_bus_entry(entry->d_name);
    closedir(dir);
}

void dropScan() {
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    UsbDevice::deviceid_map.clear();
}

}  // namespace android::kus
