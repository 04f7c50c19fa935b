// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <benchmark/benchmark.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "median.h"
#include "private_world.h"
#include "usb_machine.h"

namespace {

// Of the runs that are reported: those before them only find out how often to repeat.
class Reporter : public benchmark::ConsoleReporter {
  public:
    Reporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Color : OO_None) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            missed |= run.report_label.find(android::kus::kMissed) != std::string::npos;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    bool missed = false;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--kernel_devices") == 0) {
        android::kus::useKernelsDevices();
        std::rotate(argv + 1, argv + 2, argv + argc--);
    } else {
        enterPrivateWorld(argv);
    }
    // Lines are formatted and then dropped, so that the log's own cost is no part of the figures.
    android::base::SetLogger([](auto id, auto severity, auto... line) {
        if (severity == android::base::FATAL) android::base::StderrLogger(id, severity, line...);
    });
    benchmark::SetDefaultTimeUnit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return reporter.missed ? 1 : 0;
}
