// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace emulator {

/**
 * Follows the `mode` file of each controller under /sys/devices/platform/soc, on threads of its
 * own: what the file says now, and every write from the return on. A controller has its devices
 * while its file says "host"; any other role takes them away. The daemon leaves 100 ms between two
 * roles: both are gone through, in order, however long the kernel takes for each.
 */
void startRoleSwitch();

}  // namespace emulator
