// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace android::kus {

/**
 * Defined by each target. Runs in a private world (see private_world.h) with directories for the
 * rules and for the USB devices, and with a log that formats its lines and drops them. A CHECK that
 * fails is a finding, whose message is printed.
 */
void runInput(const std::string& input);

void writeFile(const std::string& path, const std::string& content);

}  // namespace android::kus
