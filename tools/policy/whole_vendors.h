// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>

#include "policy.h"

namespace android::kus {

/**
 * The warning that vendors which are listed with products match as a whole, because others with a
 * greater id are listed without any: see Util::validateVid. Takes ids to lines, neither empty.
 */
Warning wholeVendorWarning(const std::map<int32_t, int>& listed,
                           const std::map<int32_t, int>& whole);

}  // namespace android::kus
