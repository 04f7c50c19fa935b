// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gate/device_reader.h"

namespace android::kus {

/**
 * Keeps an input device from sending events, or lets it send them again: Linux 5.11 and later have
 * the attribute `inhibited` for it (Documentation/input/input-programming.rst).
 */
void setSilenced(const Device& inputDevice, bool silenced);

}  // namespace android::kus
