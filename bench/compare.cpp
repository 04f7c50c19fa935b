// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

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

bool targetMissed = false;

}  // namespace

void compare(benchmark::State& state, const std::vector<Baseline>& baselines,
             const std::function<void()>& run) {
    struct Samples {
        std::vector<double> times, ratios;
    };
    std::vector<Samples> samples(baselines.size());
    std::vector<double> times;
    for (auto _ : state) {
        for (size_t i = 0; i < baselines.size(); ++i) {
            samples[i].times.push_back(secondsOf(baselines[i].run));
        }
        times.push_back(secondsOf(run));
        state.SetIterationTime(times.back());
        for (Samples& s : samples) s.ratios.push_back(times.back() / s.times.back());
    }
    state.counters["median"] = median(times) * 1e6;
    std::vector<std::string> results;
    for (size_t i = 0; i < baselines.size(); ++i) {
        const auto& [name, unused, target] = baselines[i];
        const double ratio = median(samples[i].ratios);
        state.counters[name] = median(samples[i].times) * 1e6;
        results.push_back(base::StringPrintf("%.2f x %s", ratio, name));
        if (!target) continue;
        const bool missed = ratio > *target;
        targetMissed |= missed;
        results.back() +=
            base::StringPrintf(" (target %.2f: %s)", *target, missed ? "MISSED" : "met");
    }
    state.SetLabel(base::Join(results, ", "));
}

bool isTargetMissed() { return targetMissed; }

void timeOnly(benchmark::State& state, const std::function<void()>& run,
              const std::function<void()>& putBack) {
    for (auto _ : state) {
        state.SetIterationTime(secondsOf(run));
        putBack();
    }
}

}  // namespace android::kus
