// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <optional>
#include <vector>

namespace android::kus {

/** What an action is held against. */
struct Baseline {
    /** One word: it names the counter, too. */
    const char* name;
    std::function<void()> run;
    /** The greatest ratio of their times that is good. */
    std::optional<double> target;
};

/**
 * Times an action and its baselines in turns, so that whatever slows the machine slows all, and by
 * the processor time of the calling thread. The benchmark must use manual time, which is the
 * action's. Its counters are the medians of the times in microseconds, its label tells the medians
 * of the ratios in a turn, and whether the targets are met (kMissed).
 */
void compare(benchmark::State& state, const std::vector<Baseline>& baselines,
             const std::function<void()>& run);

/** Times an action without what has to be put back between two runs. Uses manual time too. */
void timeOnly(benchmark::State& state, const std::function<void()>& run,
              const std::function<void()>& putBack);

}  // namespace android::kus
