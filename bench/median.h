// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <vector>

namespace android::kus {

/** What a report says of a target that is not met. */
inline constexpr char kMissed[] = "MISSED";

inline double median(std::vector<double> values) {
    const auto middle = values.begin() + values.size() / 2;
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace android::kus
