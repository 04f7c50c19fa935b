// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gate/device_table.h"

namespace android::kus {

/**
 * Keeps the table to what is attached. Never waits for the service. With `closed` it keeps the
 * kernel from giving drivers to USB devices but hubs, and input devices silent from the moment that
 * they are seen.
 *
 * What the kernel has opened by itself, on a bus that was not kept closed, is closed again. On one
 * that was, such as after a restart, only devices with nothing but HID interfaces are: what else is
 * open there has been allowed, and stays so until another answer.
 */
[[noreturn]] void followKernel(DeviceTable* devices, bool closed);

}  // namespace android::kus
