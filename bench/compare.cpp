// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <time.h>

#include <string>
#include <vector>

#include "median.h"

namespace android::kus {
namespace {

double processorTime() {
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return time.tv_sec + time.tv_nsec * 1e-9;
}

/** Of this thread alone: what else the machine does adds little to it. */
double secondsOf(const std::function<void()>& run) {
    const double start = processorTime();
    run();
    return processorTime() - start;
}

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
        results.back() +=
            base::StringPrintf(" (target %.2f: %s)", *target, missed ? kMissed : "met");
    }
    state.SetLabel(base::Join(results, ", "));
}

void timeOnly(benchmark::State& state, const std::function<void()>& run,
              const std::function<void()>& putBack) {
    for (auto _ : state) {
        state.SetIterationTime(secondsOf(run));
        putBack();
    }
}

}  // namespace android::kus
