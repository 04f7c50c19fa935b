// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

using android::base::unique_fd;

// 11 characters of an integer attribute and a terminator; the rest of a longer one is ignored.
constexpr size_t kIntTextSize = 12;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool fitsPath(size_t length) { return length < kPathSize; }

size_t pathLength(const char* d_name, const char* below) {
    return strlen(kUsbDevicesPath) + strlen(d_name) + strlen(below) + strlen("//");
}

/** Makes the path of what lies `below` an entry, cut where it does not fit. */
const char* entryPath(const char* d_name, const char* below, char (&path)[kPathSize]) {
    snprintf(path, sizeof(path), "%s/%s/%s", kUsbDevicesPath, d_name, below);
    return path;
}

/**
 * The entry that is being read, open for as long as this lives. An entry is a link far into the
 * tree of devices: what it has is found from there, and not each time from the root.
 */
class EntryBeingRead {
  public:
    explicit EntryBeingRead(const char* d_name) : name_(d_name) {
        char path[kPathSize];
        directory_.reset(open(entryPath(d_name, "", path), O_PATH | O_DIRECTORY | O_CLOEXEC));
        current_ = this;
    }
    ~EntryBeingRead() { current_ = nullptr; }
    EntryBeingRead(const EntryBeingRead&) = delete;

    /** -1 for an entry that is not the one, or could not be opened: its whole paths tell why. */
    static int handleOf(const char* d_name) {
        return current_ != nullptr && current_->name_ == d_name ? current_->directory_.get() : -1;
    }

  private:
    // Guarded by topologyLock.
    static inline const EntryBeingRead* current_ = nullptr;

    const char* const name_;
    unique_fd directory_;
};

/** Copies what fits of a name, and returns the length of the whole. */
size_t copyName(const char* name, char (&field)[kNameSize]) {
    const size_t length = strlen(name);
    const size_t copied = std::min(length, kNameSize - 1);
    memcpy(field, name, copied);
    field[copied] = '\0';
    return length;
}

void warnTruncated(const char* d_name, const char* copy) {
    printf("warning: '%s' truncated to '%s'\n", d_name, copy);
}

/** Stores the last two ports of the chain that follows the bus in a device's name. */
void readPorts(const char* chain, usbdevice* device) {
    while (*chain != '\0') {
        const char* number = chain + 1;
        char* end;
        const uint32_t port = strtoul(number, &end, 10);
        if (end == number) return;
        device->parent_portnum = device->portnum;
        device->portnum = port;
        chain = end;
    }
}

unique_fd openAttribute(const char* d_name, const char* file) {
    const int entry = EntryBeingRead::handleOf(d_name);
    char path[kPathSize];
    if (entry < 0) file = entryPath(d_name, file, path);
    return unique_fd(openat(entry, file, O_RDONLY | O_CLOEXEC));
}

/**
 * Stores the last component of the target of an entry's `link`; an unreadable one leaves `driver`
 * as it is. Returns the length of the link's path; nothing was read when fitsPath() is false for
 * it.
 */
size_t readDriver(const char* d_name, const char* link, char (&driver)[kNameSize]) {
    const size_t length = pathLength(d_name, link);
    if (!fitsPath(length)) return length;
    const int entry = EntryBeingRead::handleOf(d_name);
    char path[kPathSize];
    if (entry < 0) link = entryPath(d_name, link, path);
    char target[kPathSize];
    const ssize_t end = readlinkat(entry, link, target, sizeof(target));
    if (end < 0) return length;
    target[static_cast<size_t>(end) < sizeof(target) - 1 ? end : 0] = '\0';
    const char* slash = strrchr(target, '/');
    if (slash != nullptr) copyName(slash + 1, driver);
    return length;
}

/**
 * Appends to a sibling chain, unless the record is in it already: an interface without a parent is
 * offered again with every device, and a device to every bus of its number.
 */
template <typename Record>
void appendSibling(Record** link, Record* record) {
    for (; *link != nullptr; link = &(*link)->next_sibling) {
        if (*link == record) return;
    }
    *link = record;
}

}  // namespace

bool UsbDevice::verbose_trace = false;
usbbusnode* UsbDevice::bus_list = nullptr;
record_list<usbdevice> UsbDevice::device_list;
record_list<usbinterface> UsbDevice::interface_list;

unsigned int UsbDevice::read_sysfs_file_int(const char* d_name, const char* file, int base) {
    char text[kIntTextSize] = {};
    const unique_fd fd = openAttribute(d_name, file);
    if (!fd.ok() || read(fd.get(), text, sizeof(text) - 1) < 0) {
        char path[kPathSize];
        perror(entryPath(d_name, file, path));
        return 0;
    }
    return strtoul(text, nullptr, base);
}

void UsbDevice::read_sysfs_file_string(const char* d_name, const char* file, char* buf, int len) {
    buf[0] = '\0';
    if (!fitsPath(pathLength(d_name, file))) return;
    const unique_fd fd = openAttribute(d_name, file);
    if (!fd.ok()) return;
    ssize_t length = read(fd.get(), buf, len);
    if (length < 1 || length >= len) length = 0;
    while (length > 0 && buf[length - 1] == '\n') --length;
    buf[length] = '\0';
    for (char* c = buf; (c = strchr(c, '\n')) != nullptr;) *c = ' ';
}

void UsbDevice::inspect_bus_entry(const char* d_name) {
    if (strncmp(d_name, "usb", 3) == 0 && isDigit(d_name[3])) {
        add_usb_bus(d_name);
    } else if (isDigit(d_name[0])) {
        if (strchr(d_name, ':') != nullptr) {
            add_usb_interface(d_name);
        } else {
            add_usb_device(d_name);
        }
    } else if (strcmp(d_name, ".") != 0 && strcmp(d_name, "..") != 0) {
        fprintf(stderr, "ignoring '%s'\n", d_name);
    }
}

void UsbDevice::add_usb_bus(const char* d_name) {
    usbbusnode* bus = new (std::nothrow) usbbusnode();
    if (bus == nullptr) return;
    bus->busnum = strtoul(d_name + strlen("usb"), nullptr, 10);
    if (copyName(d_name, bus->name) >= sizeof(bus->name)) warnTruncated(d_name, bus->name);

    const EntryBeingRead open(d_name);
    bus->devnum = read_sysfs_file_int(d_name, "devnum", 10);
    bus->bDeviceClass = read_sysfs_file_int(d_name, "bDeviceClass", 16);
    bus->idProduct = read_sysfs_file_int(d_name, "idProduct", 16);
    bus->idVendor = read_sysfs_file_int(d_name, "idVendor", 16);
    bus->maxchild = read_sysfs_file_int(d_name, "maxchild", 10);
    read_sysfs_file_string(d_name, "speed", bus->speed, sizeof(bus->speed));
    bus->rx_lanes = read_sysfs_file_int(d_name, "rx_lanes", 10);
    bus->tx_lanes = read_sysfs_file_int(d_name, "tx_lanes", 10);

    if (verbose_trace) LOG(INFO) << "calling append_busnode " << d_name;
    usbbusnode** tail = &bus_list;
    while (*tail != nullptr) tail = &(*tail)->next;
    *tail = bus;
    get_roothub_driver(bus, d_name);
}

void UsbDevice::get_roothub_driver(usbbusnode* bus, const char* d_name) {
    const size_t length = readDriver(d_name, "../driver", bus->driver);
    if (!fitsPath(length)) {
        LOG(ERROR) << "Cannot read driver link for " << d_name << ": " << d_name << length;
    }
}

void UsbDevice::add_usb_device(const char* d_name) {
    if (verbose_trace) LOG(INFO) << " add_usb_device  enter" << d_name;
    char* at;
    const uint32_t busnum = strtoul(d_name, &at, 10);
    if (at == d_name) return;
    usbdevice* device = new (std::nothrow) usbdevice();
    if (device == nullptr) return;
    device->busnum = busnum;
    readPorts(at, device);

    const EntryBeingRead open(d_name);
    // Unlike a bus or an interface a device's name is cut without a warning, and only then is the
    // configuration value read.
    if (copyName(d_name, device->name) >= sizeof(device->name)) {
        device->bConfigurationValue = read_sysfs_file_int(d_name, "bConfigurationValue", 10);
    }
    device->bDeviceClass = read_sysfs_file_int(d_name, "bDeviceClass", 16);
    device->bDeviceProtocol = read_sysfs_file_int(d_name, "bDeviceProtocol", 16);
    device->bDeviceSubClass = read_sysfs_file_int(d_name, "bDeviceSubClass", 16);
    device->bMaxPacketSize0 = read_sysfs_file_int(d_name, "bMaxPacketSize0", 16);
    read_sysfs_file_string(d_name, "bMaxPower", device->bMaxPower, sizeof(device->bMaxPower));
    device->bNumConfigurations = read_sysfs_file_int(d_name, "bNumConfigurations", 10);
    device->bNumInterfaces = read_sysfs_file_int(d_name, "bNumInterfaces", 16);
    device->bcdDevice = read_sysfs_file_int(d_name, "bcdDevice", 16);
    device->bmAttributes = read_sysfs_file_int(d_name, "bmAttributes", 16);
    device->configuration = read_sysfs_file_int(d_name, "configuration", 10);
    device->devnum = read_sysfs_file_int(d_name, "devnum", 10);
    device->idProduct = read_sysfs_file_int(d_name, "idProduct", 16);
    device->idVendor = read_sysfs_file_int(d_name, "idVendor", 16);
    device->maxchild = read_sysfs_file_int(d_name, "maxchild", 10);
    read_sysfs_file_string(d_name, "manufacturer", device->manufacturer,
                           sizeof(device->manufacturer));
    read_sysfs_file_string(d_name, "product", device->product, sizeof(device->product));
    read_sysfs_file_string(d_name, "serial", device->serial, sizeof(device->serial));
    read_sysfs_file_string(d_name, "version", device->version, sizeof(device->version));
    read_sysfs_file_string(d_name, "speed", device->speed, sizeof(device->speed));
    device->rx_lanes = read_sysfs_file_int(d_name, "rx_lanes", 10);
    device->tx_lanes = read_sysfs_file_int(d_name, "tx_lanes", 10);

    const size_t length = readDriver(d_name, "driver", device->driver);
    if (!fitsPath(length)) {
        LOG(ERROR) << "Can not read driver link for " << d_name << ": " << d_name << length;
    }
    device_list.push_back(device);
}

void UsbDevice::add_usb_interface(const char* d_name) {
    if (verbose_trace) LOG(INFO) << " add_usb_interface  enter" << d_name;
    const char* colon = strchr(d_name, ':');
    if (colon == nullptr) return;
    char* at;
    const uint32_t configuration = strtoul(colon + 1, &at, 10);
    if (at == colon + 1 || *at == '\0') return;
    const char* number = at + 1;
    const uint32_t ifnum = strtoul(number, &at, 10);
    if (at == number) return;
    usbinterface* interface = new (std::nothrow) usbinterface();
    if (interface == nullptr) return;
    interface->configuration = configuration;
    interface->ifnum = ifnum;

    if (copyName(d_name, interface->name) >= sizeof(interface->name)) {
        warnTruncated(d_name, interface->name);
    }
    if (verbose_trace) {
        LOG(INFO) << "warning add_usb_interface"
                  << " d_name" << d_name << "truncated to " << interface->name;
    }
    const EntryBeingRead open(d_name);
    interface->bAlternateSetting = read_sysfs_file_int(d_name, "bAlternateSetting", 10);
    interface->bInterfaceClass = read_sysfs_file_int(d_name, "bInterfaceClass", 16);
    interface->bInterfaceNumber = read_sysfs_file_int(d_name, "bInterfaceNumber", 16);
    interface->bInterfaceProtocol = read_sysfs_file_int(d_name, "bInterfaceProtocol", 16);
    interface->bInterfaceSubClass = read_sysfs_file_int(d_name, "bInterfaceSubClass", 16);
    interface->bNumEndpoints = read_sysfs_file_int(d_name, "bNumEndpoints", 16);

    const size_t length = readDriver(d_name, "driver", interface->driver);
    if (!fitsPath(length) && verbose_trace) {
        LOG(INFO) << "Can not read driver link for d_name:" << d_name << "for: " << length;
    }
    interface_list.push_back(interface);
}

void UsbDevice::connect_devices() {
    if (verbose_trace) LOG(INFO) << "calling connect_devices entered";
    for (usbdevice& device : device_list) {
        if (device.parent_portnum != 0) {
            if (verbose_trace) {
                LOG(INFO) << "calling assign_dev_to_parent usbdevice:" << device.name;
            }
            assign_dev_to_parent(&device);
        } else {
            if (verbose_trace) LOG(INFO) << "calling assign_dev_to_bus usbdevice:" << device.name;
            for (usbbusnode* bus = bus_list; bus != nullptr; bus = bus->next) {
                if (bus->busnum == device.busnum) appendSibling(&bus->first_child, &device);
            }
        }
        for (usbinterface& interface : interface_list) {
            if (interface.parent != nullptr) continue;
            if (verbose_trace) {
                LOG(INFO) << "calling assign_interface_to_parent usbdevice:" << device.name
                          << "and usbinterface:" << interface.name;
            }
            assign_interface_to_parent(&device, &interface);
        }
    }
    fill_deviceid_map();
}

void UsbDevice::assign_dev_to_parent(usbdevice* d) {
    if (verbose_trace) {
        LOG(INFO) << "calling assign_dev_to_parent entered with usbdevice:" << d->name;
    }
    const char* last_dot = strrchr(d->name, '.');
    for (usbdevice& pd : device_list) {
        if (verbose_trace) LOG(INFO) << "calling assign_dev_to_parent usbdevice pd:" << pd.name;
        if (&pd == d || pd.busnum != d->busnum || pd.portnum != d->parent_portnum) continue;
        // The hub's name is the device's without its last port.
        if (last_dot == nullptr) continue;
        const size_t length = last_dot - d->name;
        if (strlen(pd.name) != length || strncmp(pd.name, d->name, length) != 0) continue;

        d->parent = &pd;
        if (pd.first_child != nullptr && verbose_trace) {
            LOG(INFO) << "calling assign_dev_to_parent usbdevice  append_dev_sibling pd:"
                      << pd.name;
        }
        appendSibling(&pd.first_child, d);
        return;
    }
}

void UsbDevice::assign_interface_to_parent(usbdevice* d, usbinterface* i) {
    const char* colon = strchr(i->name, ':');
    if (colon == nullptr) return;
    const size_t length = colon - i->name;
    if (strncmp(i->name, d->name, length) == 0 && d->name[length] == '\0') {
        i->parent = d;
        appendSibling(&d->first_interface, i);
        return;
    }

    // The configuration digit, not the port: a root hub's interface (1-0:1.0) has a 1 here, and so
    // is on no bus.
    if (colon[1] != '0') return;
    char* end;
    const uint32_t busnum = strtoul(i->name, &end, 10);
    if (end == i->name) return;
    if (verbose_trace) {
        LOG(INFO) << " append_businterface usbdevice:" << d->name
                  << " for the interface:" << i->name << " and busnum:" << busnum;
    }
    for (usbbusnode* bus = bus_list; bus != nullptr; bus = bus->next) {
        if (bus->busnum != busnum) continue;
        appendSibling(&bus->first_interface, i);
        return;
    }
}

void UsbDevice::delete_all_nodes() {
    LOG(INFO) << "deleting the list using deleteAllnode";
    device_list.clear();
    interface_list.clear();
}

void UsbDevice::empty_list() {
    LOG(INFO) << "***Entered empty_list******";
    while (bus_list != nullptr) {
        usbbusnode* next = bus_list->next;
        delete bus_list;
        bus_list = next;
    }
}

}  // namespace android::kus
