// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

namespace android::kus {

/**
 * Defined by each target. Runs in a private world (see private_world.h) with a directory for the
 * rules, and with a log that formats its lines and drops them. A CHECK that fails is a finding,
 * whose message is printed.
 */
void runInput(const std::string& input);

/** With the directories above it. */
void writeFile(const std::string& path, const std::string& content);

/** What `action` writes to the file that it is given. */
std::string outputOf(const std::function<void(int file)>& action);

}  // namespace android::kus
