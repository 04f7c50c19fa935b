// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gate/device_table.h"

namespace android::kus {

/**
 * Asks the service about every device in the table and acts on the answers, and tells it what was
 * removed; waits for the service where there is none, and begins anew with each one that comes.
 */
[[noreturn]] void askAboutDevices(DeviceTable* devices);

}  // namespace android::kus
