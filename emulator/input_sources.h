// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/input.h>
#include <stdint.h>

#include <bitset>

namespace emulator {

/** What a device can send, as evdev describes it. */
struct InputCapabilities {
    std::bitset<KEY_CNT> keys;
    std::bitset<REL_CNT> relative;
    std::bitset<ABS_CNT> absolute;
    std::bitset<INPUT_PROP_CNT> properties;
};

/**
 * The device's AINPUT_SOURCE_* bits, found as the platform's input reader finds them (EventHub's
 * device classes and the sources of their input mappers), for devices without a configuration file.
 */
uint32_t inputSources(const InputCapabilities& capabilities);

}  // namespace emulator
