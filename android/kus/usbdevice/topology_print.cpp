// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <stdio.h>

#include <string>

#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

// One prefix at every depth: the order of the lines alone shows the nesting.
constexpr char kLinePrefix[] = "   |__ ";

constexpr uint32_t kHubClass = 9;

}  // namespace

void UsbDevice::dump_print_test(int fd, int text) {
    LOG(INFO) << "dump_print_test called " << fd;
    const std::lock_guard lock(topologyLock);
    deviceid_map.clear();
    // Silent where the directory cannot be read, unlike create_usb_device_map.
    if (scan_bus_entries()) {
        print_tree(text);
        print_interfacelist(text);
    }
    delete_all_nodes();
    empty_list();
    print_deviceid_map(text);
}

void UsbDevice::print_tree(int fd) {
    LOG(INFO) << "print_tree entered";
    for (const usbbusnode* bus = bus_list; bus != nullptr; bus = bus->next) {
        if (bus->first_child != nullptr) print_tree_dev_children(bus->first_child, fd);
    }
}

void UsbDevice::print_tree_dev_children(usbdevice* first, int fd) {
    LOG(INFO) << "print_tree_dev_children entered";
    for (usbdevice* device = first; device != nullptr; device = device->next_sibling) {
        for (usbinterface* i = device->first_interface; i != nullptr; i = i->next_sibling) {
            dprintf(fd, "%s", kLinePrefix);
            print_usbdevice(device, i, fd);
        }
        print_tree_dev_children(device->first_child, fd);
    }
}

void UsbDevice::print_usbdevice(usbdevice* d, usbinterface* i, int fd) {
    const bool isHub = i->bInterfaceClass == kHubClass;
    std::string line =
        "Port : " + std::to_string(d->portnum) + ", DevNum : " + std::to_string(d->devnum) +
        ", If : " + std::to_string(i->ifnum) + ", Class : " + std::to_string(i->bInterfaceClass) +
        ", Driver : " + i->driver;
    line += isHub ? "\n  " : " \n";
    dprintf(fd, isHub ? " %s\n" : " %s", line.c_str());
    dprintf(fd, "       Vendor:Product ID %04x:%04x ", d->idVendor, d->idProduct);
    LOG(INFO) << "ID " << d->idVendor << ":" << d->idProduct;
    dprintf(fd, "\n%s/%s  /dev/bus/usb/%03d/%03d\n", kUsbDevicesPath, d->name, d->busnum,
            d->devnum);
    dprintf(fd, "printing interfaces for device device:%s and first_interface:%s \n", d->name,
            d->first_interface->name);
    if (d->parent != nullptr) dprintf(fd, "parent name :%s\n", d->parent->name);
    dprintf(fd, "parent_portnum:%d\n", d->parent_portnum);
    dprintf(fd, "************************\n");
}

void UsbDevice::print_interfacelist(int fd) {
    for (const usbinterface& interface : interface_list) {
        dprintf(fd, "\nprint_interfacelist  usbinterface:%s/%s/ and class:%d", kUsbDevicesPath,
                interface.name, interface.bInterfaceClass);
        if (interface.parent == nullptr) continue;
        const usbdevice& device = *interface.parent;
        dprintf(fd,
                "\n\t parent vendorid : %u, productid: %u,parent path: %s,manufacturer: %s,"
                "product: %s,deviceId:%d devCategory: %d",
                device.idVendor, device.idProduct, device.name, device.manufacturer, device.product,
                device_id(device), interface.category);
    }
}

void UsbDevice::print_deviceid_map(int fd) {
    LOG(INFO) << "print_deviceid_map ";
    if (fd != -1) dprintf(fd, "\n\nDeviceIdMap size%zu\n", deviceid_map.size());
    for (const auto& [id, record] : deviceid_map) {
        LOG(INFO) << " DeviceId: " << id << " Interface name:" << record.name
                  << " class:" << record.bInterfaceClass << " Vendor ID:" << record.idVendor
                  << " Product ID:" << record.idProduct;
        if (fd != -1) {
            dprintf(fd,
                    " \n DeviceId : %d, Interface name : %s, class : %u, Vendor ID : %u, "
                    "Product ID : %u\n",
                    id, record.name, record.bInterfaceClass, record.idVendor, record.idProduct);
        }
    }
}

}  // namespace android::kus
