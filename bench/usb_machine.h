// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>

#include <string>
#include <vector>

namespace android::kus {

/**
 * The private /sys of a phone with two xHCI controllers, which is four root hubs, and this many
 * devices on the first one, in groups of a hub and seven behind it. Their interfaces are a network
 * adapter, a stick and a keyboard in turns. Replaces the machine that was there.
 */
class UsbMachine {
  public:
    UsbMachine(int devices, int interfacesPerDevice);

    /** The device that was attached last. */
    const DeviceInfo& lastDevice() const { return lastDevice_; }

    /**
     * The system calls of one scan and nothing else: reads of the directories, open, read and
     * close of each attribute, readlink of each driver link.
     */
    void readBare() const;

  private:
    struct Read {
        enum class Kind { attribute, link, directory, startOfDirectory } kind;
        std::string path;
    };

    void planReads();
    void planCategorisation(const std::string& interface);

    DeviceInfo lastDevice_;
    std::vector<Read> reads_;
};

/** Replaces the machine that was there by one with an empty /sys/bus/usb/devices. */
void makeMachineWithoutUsb();

/** The first half of a scan: reads every entry into the scan lists. */
void scanEntries();

/** Empties the scan lists and the device-id map. */
void dropScan();

}  // namespace android::kus
