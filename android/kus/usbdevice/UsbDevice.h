// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "usbdevice/topology_records.h"

namespace android::kus {

/**
 * The USB topology as sysfs shows it, and the host controllers behind it. A device id is
 * bus number * 1000 + device number.
 */
class UsbDevice {
  public:
    /** While one lives, its device is in the device-id map for as long as a scan finds it. */
    class KeptInMap {
      public:
        explicit KeptInMap(int deviceId);
        ~KeptInMap();
        KeptInMap(const KeptInMap&) = delete;

      private:
        const int deviceId_;
    };

    /** Rebuilds the device-id map from a fresh scan of sysfs. */
    static void create_usb_device_map();

    /** Copies of a device's records, in map order; empty when the id is unknown. */
    static std::vector<usbinterface_custom> get_deviceid_data(int deviceId);

    /**
     * Drops a device from the map when `flag` is false, and waits while it is a KeptInMap; does
     * nothing when it is true.
     */
    static void update_deviceid_map(int deviceId, bool flag);

    /** True when one of the device's interfaces is a vendor-specific HID. */
    static bool check_vendor_hid(int deviceId);

    /**
     * Writes the `authorized` attribute of each of the device's interfaces: "0" for status 0, "1"
     * for any other. Stops at the first one that cannot be written.
     */
    static void update_status(int deviceId, int status);

    /**
     * Makes attached devices enumerate again: with 0 or less by toggling every listed host
     * controller that is in the host role, with a positive value by a virtual undock and dock
     * that many milliseconds apart. Blocks for all of it; one reset runs at a time.
     */
    static void usb_host_reset(int value);

    /**
     * Does usb_host_reset(0) on a thread of its own and returns at once. One that still waits for
     * its turn serves further requests, too.
     */
    static void request_host_reset();
    /** True while one that was requested waits or runs. */
    static bool requested_reset_runs();

    /**
     * Gives the controller that a reset has just switched off its role back. For the crash handler,
     * once SharedStateUse::endAll keeps resets from writing.
     */
    static void give_host_role_back();

    /**
     * Rescans, which rebuilds the device-id map too, and prints the device tree, the interfaces and
     * the map to `text`. Holds topologyLock meanwhile, so that should not block. The log names
     * `fd`, which the text is for.
     */
    static void dump_print_test(int fd, int text);

    // The scan. Whoever calls these holds topologyLock and leaves the lists empty.

    static unsigned int read_sysfs_file_int(const char* d_name, const char* file, int base);
    /** `len` is the size of `buf`; a text that would fill all of it reads as empty. */
    static void read_sysfs_file_string(const char* d_name, const char* file, char* buf, int len);
    static void inspect_bus_entry(const char* d_name);
    static void add_usb_bus(const char* d_name);
    static void add_usb_device(const char* d_name);
    static void add_usb_interface(const char* d_name);
    static void get_roothub_driver(usbbusnode* bus, const char* d_name);
    static void connect_devices();
    static void assign_dev_to_parent(usbdevice* d);
    static void assign_interface_to_parent(usbdevice* d, usbinterface* i);
    static void populate_category_device(usbinterface* i);
    static void delete_all_nodes();
    static void empty_list();

    // The printing, of a scanned tree. Write errors on `fd` are ignored.

    static void print_tree(int fd);
    static void print_tree_dev_children(usbdevice* first, int fd);
    static void print_usbdevice(usbdevice* d, usbinterface* i, int fd);
    static void print_interfacelist(int fd);
    /** Writes the map to the log, and to `fd` unless that is -1. The caller holds topologyLock. */
    static void print_deviceid_map(int fd);

    // The reset. Waits are in milliseconds.

    /** The caller holds hostResetMutex. */
    static void virtual_undock_dock_event(int wait);
    static void registersysfsObserverViaThread();
    static void* registersysfsObserver(void*);
    static void readSysfsChangeEvent();
    /**
     * Reads at most `size` - 1 bytes and ends them with a NUL. Returns their number, or 0 with
     * `buf` untouched.
     */
    static size_t read_sysfs_val(const char* path, char* buf, size_t size);
    /** Returns the number of bytes written, or 0. */
    static size_t write_sysfs_val(const char* path, const char* buf, size_t count);
    /**
     * Path of the `mode` attribute of the controller that a DisplayLink adapter hangs off,
     * "empty" without such an adapter, or an empty text when its controller cannot be read.
     */
    static std::string get_displaylink_soc_path();
    /** The fields between the delimiters, without their line feeds; none after a trailing one. */
    static std::vector<std::string> split(std::string text, char delimiter);

    /** Guards the scan lists and the device-id map. */
    static std::mutex topologyLock;

    static usbbusnode* bus_list;
    static record_list<usbdevice> device_list;
    static record_list<usbinterface> interface_list;
    static std::multimap<int32_t, usbinterface_custom> deviceid_map;

    /** Turns on the trace lines of the scan; no code does, a debugger can. */
    static bool verbose_trace;

    /** Held for a whole reset. */
    static std::mutex hostResetMutex;
    /** Stops the dock poll thread. */
    static std::atomic<bool> virtualDockDone;

  private:
    /** Scans the bus and links what it finds; false, with nothing scanned, where it cannot. */
    static bool scan_bus_entries();
    static int32_t device_id(const usbdevice& device);
    static void fill_deviceid_map();
    static std::vector<usbinterface_custom> records_of(int deviceId);
};

}  // namespace android::kus
