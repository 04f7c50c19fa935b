// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <android-base/stringprintf.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

namespace android::kus {
namespace {

double secondsOf(const std::function<void()>& run) {
    const auto start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + values.size() / 2;
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

void compare(benchmark::State& state, const Baseline& baseline, const std::function<void()>& run) {
    std::vector<double> baselineTimes, times, ratios;
    for (auto _ : state) {
        baselineTimes.push_back(secondsOf(baseline.run));
        times.push_back(secondsOf(run));
        state.SetIterationTime(times.back());
        ratios.push_back(times.back() / baselineTimes.back());
    }
    const double ratio = median(ratios);
    std::string label = base::StringPrintf("%.0f us, %.2f x %s (%.0f us)", median(times) * 1e6,
                                           ratio, baseline.name, median(baselineTimes) * 1e6);
    if (baseline.target) {
        label += base::StringPrintf(", target %.2f: %s", *baseline.target,
                                    ratio <= *baseline.target ? "met" : "MISSED");
    }
    state.SetLabel(label);
}

void timeOnly(benchmark::State& state, const std::function<void()>& run,
              const std::function<void()>& putBack) {
    for (auto _ : state) {
        state.SetIterationTime(secondsOf(run));
        putBack();
    }
}

}  // namespace android::kus
