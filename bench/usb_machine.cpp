// SPDX-License-Identifier: Apache-2.0
#include "usb_machine.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <initializer_list>

#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace fs = std::filesystem;

namespace android::kus {
namespace {

bool kernelsDevices = false;

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

// What is there besides.
const std::vector<std::string> kOtherDeviceAttributes = {
    "authorized", "avoid_reset_quirk", "bConfigurationValue", "busnum", "descriptors", "dev",
    "devpath",    "devspec",           "ltm_capable",         "quirks", "removable",   "uevent",
    "urbnum"};
const std::vector<std::string> kOtherInterfaceAttributes = {"authorized", "modalias",
                                                            "supports_autosuspend", "uevent"};

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

bool isBus(const std::string& entry) { return entry.front() == 'u'; }
bool isInterface(const std::string& entry) { return entry.find(':') != std::string::npos; }

Attributes attributes(std::initializer_list<std::vector<std::string>> lists, Attributes special) {
    for (const auto& names : lists) {
        for (const std::string& name : names) special.emplace(name, "1");
    }
    return special;
}

std::string controllerOf(int bus) {
    return "/sys/devices/platform/soc/a800000.ssusb/a800000.dwc3/xhci-hcd." +
           std::to_string((bus - 1) / 2) + ".auto";
}

/** The directory of a device on the first bus, or of a hub above it. */
std::string directoryOf(const std::string& device) {
    const size_t dot = device.rfind('.');
    const std::string parent =
        dot == std::string::npos ? controllerOf(1) + "/usb1" : directoryOf(device.substr(0, dot));
    return parent + "/" + device;
}

void addDirectories(const std::string& entry, std::initializer_list<std::string> directories) {
    for (const std::string& directory : directories) {
        fs::create_directories(sysfsPath(entry, directory));
    }
}

void addBus(int number) {
    const std::string name = "usb" + std::to_string(number);
    addEntry(name, attributes({kBusAttributes, kOtherDeviceAttributes}, {{"driver", "usb"}}),
             controllerOf(number));
    addDirectories(name, {"power", "ep_00"});
    const std::string hub = std::to_string(number) + "-0:1.0";
    addEntry(hub,
             attributes({kInterfaceAttributes, kOtherInterfaceAttributes}, {{"driver", "hub"}}),
             controllerOf(number) + "/" + name);
    addDirectories(hub, {"power", "ep_81"});
}

void addDeviceOf(const std::string& name, int devnum, bool isHub) {
    Attributes all =
        attributes({kDeviceAttributes, kOtherDeviceAttributes}, {{"devnum", std::to_string(devnum)},
                                                                 {"manufacturer", "A maker"},
                                                                 {"product", "A device"},
                                                                 {"driver", "usb"}});
    all.erase("serial");
    if (isHub) {
        all.erase("manufacturer");
        all.erase("product");
    }
    addEntry(name, all, fs::path(directoryOf(name)).parent_path());
    addDirectories(name, {"power", "ep_00"});
}

void addInterfaceOf(const std::string& device, int number) {
    const InterfaceKind& kind = kindOf(number);
    const std::string name = device + ":1." + std::to_string(number);
    addEntry(name,
             attributes({kInterfaceAttributes, kOtherInterfaceAttributes},
                        {{"bInterfaceClass", std::to_string(kind.interfaceClass)},
                         {"bInterfaceNumber", std::to_string(number)},
                         {"driver", kind.driver}}),
             directoryOf(device));
    addDirectories(name, {"power", "ep_02", "ep_81"});
    if (kind.directory != nullptr) {
        const std::string below = kind.directory;
        addDirectories(name, {below + "/" + kind.subdirectory + "/power", below + "/power"});
    }
}

/** Makes a tree with this many devices and returns the id of the last one. */
int makeDevices(int devices, int interfacesPerDevice) {
    makeMachineWithoutUsb();
    for (int bus = 1; bus <= 4; ++bus) addBus(bus);
    for (int bus : {1, 3}) {
        fs::create_symlink("../../../../../../bus/platform/drivers/xhci-hcd",
                           controllerOf(bus) + "/driver");
    }
    for (int i = 0; i < devices; ++i) {
        std::string name = "1-" + std::to_string(i / 8 + 1);
        if (i % 8 != 0) name += "." + std::to_string(i % 8);
        addDeviceOf(name, i + 2, i % 8 == 0);
        for (int number = 0; number < interfacesPerDevice; ++number) addInterfaceOf(name, number);
    }
    return 1000 + devices + 1;
}

int attributeOf(const std::string& entry, const char* attribute, int base) {
    std::string text;
    CHECK(base::ReadFileToString(sysfsPath(entry, attribute), &text, /*follow_symlinks=*/true));
    return std::stoi(text, nullptr, base);
}

/** Counts the devices that the kernel has, and returns the id of one with interfaces. */
int findDevices(int expected) {
    int devices = 0;
    int id = 0;
    for (const std::string& entry : readerOrder(kUsbDevicesPath)) {
        if (isBus(entry) || isInterface(entry)) continue;
        ++devices;
        id = attributeOf(entry, "busnum", 10) * 1000 + attributeOf(entry, "devnum", 10);
    }
    CHECK_EQ(devices, expected) << "devices are attached";
    return id;
}

void readAttribute(int directory, const char* path, bool exists) {
    char text[64];
    const int fd = openat(directory, path, O_RDONLY | O_CLOEXEC);
    CHECK_EQ(fd >= 0, exists) << path;
    if (fd < 0) return;
    if (read(fd, text, sizeof(text)) < 0) PLOG(FATAL) << path;
    close(fd);
}

void readDirectory(const char* path, bool toTheEnd) {
    char entries[32768];
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) PLOG(FATAL) << path;
    while (syscall(SYS_getdents64, fd, entries, sizeof(entries)) > 0 && toTheEnd) continue;
    close(fd);
}

void readLink(int directory, const char* path, bool exists) {
    char target[4096];
    CHECK_EQ(readlinkat(directory, path, target, sizeof(target)) > 0, exists) << path;
}

}  // namespace

UsbMachine::UsbMachine(int devices, int interfacesPerDevice) {
    lastDevice_.deviceName = "A device";
    lastDevice_.deviceId =
        kernelsDevices ? findDevices(devices) : makeDevices(devices, interfacesPerDevice);
    for (int number = 0; number < interfacesPerDevice; ++number) {
        lastDevice_.interfaceClassList.push_back(kindOf(number).interfaceClass);
    }
    planReads();
}

void UsbMachine::planReads() {
    const std::vector<std::string> entries = readerOrder(kUsbDevicesPath);
    reads_.push_back({Read::Kind::directory, kUsbDevicesPath});
    for (const std::string& entry : entries) {
        reads_.push_back({Read::Kind::entry, sysfsPath(entry, "")});
        for (const std::string& attribute : isBus(entry)         ? kBusAttributes
                                            : isInterface(entry) ? kInterfaceAttributes
                                                                 : kDeviceAttributes) {
            reads_.push_back({Read::Kind::attribute, sysfsPath(entry, attribute), attribute});
        }
        const std::string driver = isBus(entry) ? "../driver" : "driver";
        reads_.push_back({Read::Kind::link, sysfsPath(entry, driver), driver});
    }
    for (const std::string& entry : entries) {
        if (isInterface(entry)) planCategorisation(entry);
    }
    for (Read& read : reads_) read.exists = fs::exists(fs::symlink_status(read.path));
}

void UsbMachine::planCategorisation(const std::string& interface) {
    // A root hub's interface has no category, and a stick's is known without a look.
    if (interface.find("-0:") != std::string::npos) return;
    if (attributeOf(interface, "bInterfaceClass", 16) == 8) return;
    // A network adapter's directory is left as soon as its name is found; any other is read to the
    // end for what may follow.
    const bool isNetwork = fs::exists(sysfsPath(interface, "net"));
    reads_.push_back({isNetwork ? Read::Kind::startOfDirectory : Read::Kind::directory,
                      sysfsPath(interface, "")});
    for (const std::string& name : readerOrder(sysfsPath(interface, ""))) {
        if (name == "net" || name.find(':') != std::string::npos) {
            reads_.push_back({Read::Kind::startOfDirectory, sysfsPath(interface, name)});
        }
    }
}

void UsbMachine::readBare(Lookup lookup) const {
    base::unique_fd entry;
    for (const Read& read : reads_) {
        const bool fromEntry = lookup == Lookup::fromEntry;
        const int start = fromEntry ? entry.get() : AT_FDCWD;
        const char* path = fromEntry ? read.below.c_str() : read.path.c_str();
        switch (read.kind) {
            case Read::Kind::entry:
                if (fromEntry) entry.reset(open(read.path.c_str(), O_PATH | O_DIRECTORY));
                break;
            case Read::Kind::attribute:
                readAttribute(start, path, read.exists);
                break;
            case Read::Kind::link:
                readLink(start, path, read.exists);
                break;
            case Read::Kind::directory:
            case Read::Kind::startOfDirectory:
                readDirectory(read.path.c_str(), read.kind == Read::Kind::directory);
        }
    }
}

void useKernelsDevices() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/data", "tmpfs", 0, nullptr) != 0) {
        PLOG(FATAL) << "cannot make a private /data";
    }
    kernelsDevices = true;
}

bool usesKernelsDevices() { return kernelsDevices; }

void makeMachineWithoutUsb() {
    CHECK(!kernelsDevices);
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
