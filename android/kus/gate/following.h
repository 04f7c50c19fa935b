// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gate/device_table.h"

namespace android::kus {

/** Keeps the table to what is attached. Never waits for the service. */
[[noreturn]] void followKernel(DeviceTable* devices);

}  // namespace android::kus
