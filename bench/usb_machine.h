// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <string>
#include <vector>

namespace android::kus {

/**
 * The private /sys of a phone with two xHCI controllers, which is four root hubs, and this many
 * devices on the first one, in groups of a hub and seven behind it. Their interfaces are a network
 * adapter, a stick and a keyboard in turns. Entries are links into the tree of devices, and have
 * the attributes and directories beside those that are read; hubs have no texts, no device has a
 * serial number. Replaces the machine that was there.
 */
class UsbMachine {
  public:
    UsbMachine(int devices, int interfacesPerDevice);

    /** The device that was attached last. */
    const DeviceInfo& lastDevice() const { return lastDevice_; }

    /** How what an entry has is found: from the root, or from the entry, opened once for that. */
    enum class Lookup { byPath, fromEntry };

    /**
     * The system calls of one scan and nothing else: reads of the directories, open, read and
     * close of each attribute, readlink of each driver link.
     */
    void readBare(Lookup lookup) const;

  private:
    struct Read {
        enum class Kind { entry, attribute, link, directory, startOfDirectory } kind;
        std::string path;
        /** What follows the entry's path. */
        std::string below = {};
        bool exists = true;
    };

    void planReads();
    void planCategorisation(const std::string& interface);

    DeviceInfo lastDevice_;
    std::vector<Read> reads_;
};

/**
 * From now on a UsbMachine is the one that there is, with as many devices as it has. Gives the
 * process a /data of its own. Needs root.
 */
void useKernelsDevices();
bool usesKernelsDevices();

/** Replaces the machine that was there by one with an empty /sys/bus/usb/devices. */
void makeMachineWithoutUsb();

/** The first half of a scan: reads every entry into the scan lists. */
void scanEntries();

/** Empties the scan lists and the device-id map. */
void dropScan();

}  // namespace android::kus
