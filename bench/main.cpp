// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <benchmark/benchmark.h>

#include "compare.h"
#include "private_world.h"

int main(int argc, char** argv) {
    enterPrivateWorld(argv);
    // Lines are formatted and then dropped, so that the log's own cost is no part of the figures.
    android::base::SetLogger([](auto...) {});
    benchmark::SetDefaultTimeUnit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return android::kus::isTargetMissed() ? 1 : 0;
}
