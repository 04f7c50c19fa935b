// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <optional>

namespace android::kus {

/** What an action is held against. */
struct Baseline {
    const char* name;
    std::function<void()> run;
    /** The greatest ratio of their times that is good. */
    std::optional<double> target;
};

/**
 * Times an action and its baseline in turns, so that whatever slows the machine slows both. The
 * benchmark must use manual time, which is the action's; its label tells the medians of both times
 * and of the ratios of neighbours, and whether a target is met.
 */
void compare(benchmark::State& state, const Baseline& baseline, const std::function<void()>& run);

/** Times an action without what has to be put back between two runs. Uses manual time too. */
void timeOnly(benchmark::State& state, const std::function<void()>& run,
              const std::function<void()>& putBack);

}  // namespace android::kus
