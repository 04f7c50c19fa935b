// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace android::kus {

/** Writes the rules file: a whitelist with these elements. */
void writeRules(const std::string& elements);

/** Writes it and loads it. */
void loadRules(const std::string& elements);

/** Rules for the vendors from 1 to `count`, each with the one product 7. */
std::string vendorRules(int count);

}  // namespace android::kus
