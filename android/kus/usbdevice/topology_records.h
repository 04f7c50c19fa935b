// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>

namespace android::kus {

/** One entry for each bus, device and interface. */
inline constexpr char kUsbDevicesPath[] = "/sys/bus/usb/devices";

/** What the path of an entry, or of an attribute, is cut to, the terminator included. */
inline constexpr size_t kPathSize = 4096;

/**
 * The records of one scan of /sys/bus/usb/devices. They are plain structures, allocated zeroed,
 * and live only inside the operation that scans. A missing number reads as 0, a missing text as
 * empty. Sources: Documentation/ABI/testing/sysfs-bus-usb and stable/sysfs-bus-usb of the kernel.
 */

/** Size of an entry's name and of its driver's name, the terminator included. */
inline constexpr size_t kNameSize = 255;

/** Size of a text attribute, the terminator included; a text that fills it is dropped. */
inline constexpr size_t kTextSize = 64;

/** Links of a record_list, whose head is a sentinel that points at itself when it is empty. */
template <typename Record>
struct list_links {
    list_links* next;
    list_links* prev;
};

/** A circular doubly linked list of records, which clear() alone frees. */
template <typename Record>
class record_list {
  public:
    class iterator {
      public:
        explicit iterator(list_links<Record>* at) : at_(at) {}
        Record& operator*() const { return *static_cast<Record*>(at_); }
        iterator& operator++() {
            at_ = at_->next;
            return *this;
        }
        bool operator!=(const iterator& other) const { return at_ != other.at_; }

      private:
        list_links<Record>* at_;
    };

    record_list() = default;
    record_list(const record_list&) = delete;

    iterator begin() { return iterator(sentinel_.next); }
    iterator end() { return iterator(&sentinel_); }
    bool empty() const { return sentinel_.next == &sentinel_; }

    void push_back(Record* record) {
        record->next = &sentinel_;
        record->prev = sentinel_.prev;
        sentinel_.prev->next = record;
        sentinel_.prev = record;
    }

    /** Frees every record. */
    void clear() {
        while (!empty()) {
            list_links<Record>* first = sentinel_.next;
            sentinel_.next = first->next;
            first->next->prev = &sentinel_;
            delete static_cast<Record*>(first);
        }
    }

  private:
    list_links<Record> sentinel_{&sentinel_, &sentinel_};
};

struct usbdevice;
struct usbinterface;

/** A root hub: an entry such as usb1. */
struct usbbusnode {
    usbbusnode* next;
    usbinterface* first_interface;
    usbdevice* first_child;
    uint32_t busnum;
    uint32_t bDeviceClass;
    uint32_t devnum;
    uint32_t idProduct;
    uint32_t idVendor;
    uint32_t maxchild;
    char speed[8];
    uint32_t rx_lanes;
    uint32_t tx_lanes;
    char name[kNameSize];
    char driver[kNameSize];
};

/** A device: an entry such as 1-2.3. */
struct usbdevice : list_links<usbdevice> {
    usbdevice* next_sibling;
    usbinterface* first_interface;
    usbdevice* first_child;
    /** The hub it hangs off; null on a root hub's port. */
    usbdevice* parent;
    uint32_t busnum;
    /** The port number before the last one of the chain; 0 on a root hub's port. */
    uint32_t parent_portnum;
    uint32_t portnum;
    uint32_t bConfigurationValue;
    uint32_t bDeviceClass;
    uint32_t bDeviceProtocol;
    uint32_t bDeviceSubClass;
    uint32_t bMaxPacketSize0;
    char bMaxPower[kTextSize];
    uint32_t bNumConfigurations;
    uint32_t bNumInterfaces;
    uint32_t bcdDevice;
    uint32_t bmAttributes;
    uint32_t configuration;
    uint32_t devnum;
    uint32_t idProduct;
    uint32_t idVendor;
    uint32_t maxchild;
    char manufacturer[kTextSize];
    char product[kTextSize];
    char serial[kTextSize];
    char version[kTextSize];
    char speed[kTextSize];
    uint32_t rx_lanes;
    uint32_t tx_lanes;
    char name[kNameSize];
    char driver[kNameSize];
};

/** An interface: an entry such as 1-2.3:1.0. */
struct usbinterface : list_links<usbinterface> {
    usbinterface* next_sibling;
    usbdevice* parent;
    uint32_t configuration;
    uint32_t ifnum;
    uint32_t bAlternateSetting;
    uint32_t bInterfaceClass;
    uint32_t bInterfaceNumber;
    uint32_t bInterfaceProtocol;
    uint32_t bInterfaceSubClass;
    uint32_t bNumEndpoints;
    char name[kNameSize];
    int32_t category;
    char category_path[kTextSize];
    char driver[kNameSize];
};

/** What the device-id map keeps of an interface and its device after a scan. */
struct usbinterface_custom {
    uint32_t bInterfaceClass;
    uint32_t bInterfaceNumber;
    uint32_t bInterfaceProtocol;
    uint32_t bInterfaceSubClass;
    char name[kNameSize];
    uint32_t busnum;
    uint32_t devnum;
    uint32_t idVendor;
    uint32_t idProduct;
    char manufacturer[kTextSize];
    char product[kTextSize];
    /** 1 network, 2 serial tty, 4 mass storage, 8 vendor-specific HID, 0 none of these. */
    int32_t category;
    /** Kernel name of the network device or tty, "sdcard", or "empty". */
    char category_path[kTextSize];
};

}  // namespace android::kus
