// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android/kus/DeviceInfo.h>
#include <tinyxml2.h>

#include "compare.h"
#include "ku_service/admission_rules.h"
#include "rules_file.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

// Enough for a median where one run takes a third of a second.
constexpr int kLongRuns = 9;

/** Classes, whole vendors, and vendors with two products each, sorted by vendor. */
std::string mixedRules(int count) {
    std::string elements;
    for (int i = 0; i < count; ++i) {
        const std::string vendor = "<vid vendorid=\"" + std::to_string(i) + "\"";
        if (i % 10 == 0) {
            elements += "  <class>USB_CLASS_MASS_STORAGE</class>\n";
        } else if (i % 10 < 6) {
            elements += "  " + vendor + "/>\n";
        } else {
            elements += "  " + vendor + ">\n    <pid>1000</pid>\n    <pid>1001</pid>\n  </vid>\n";
        }
    }
    return elements;
}

void compareParsing(benchmark::State& state, std::optional<double> target) {
    writeRules(mixedRules(state.range(0)));
    compare(state,
            {{"library_load",
              [] {
                  tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
                  CHECK(document.LoadFile(configFilePath) == tinyxml2::XML_SUCCESS);
              },
              target}},
            [] { Util::createMapFromConfig(configFilePath); });
    CHECK(xml_parse_status);
}

void parse(benchmark::State& state) { compareParsing(state, std::nullopt); }
BENCHMARK(parse)->Arg(10)->Arg(1000)->UseManualTime();
BENCHMARK(parse)->Arg(100000)->UseManualTime()->Iterations(kLongRuns);

/** Without the log lines, of which a rule of these files makes five on average. */
void parse_unlogged(benchmark::State& state) {
    const base::ScopedLogSeverity quiet(base::WARNING);
    compareParsing(state, 1.75);
}
BENCHMARK(parse_unlogged)->Arg(1000)->UseManualTime();
BENCHMARK(parse_unlogged)->Arg(100000)->UseManualTime()->Iterations(kLongRuns);

void log_line(benchmark::State& state) {
    const std::string text = "1133";
    for (auto _ : state) LOG(INFO) << "vendorid--" << text;
}
BENCHMARK(log_line);

/** All questions that the rules are asked about a device: its last chance is its product. */
void query_rules(benchmark::State& state) {
    loadRules(vendorRules(state.range(0)));
    DeviceInfo device;
    device.interfaceClassList = {2, 8, 3};
    device.vendorId = 1;
    device.productId = 7;
    std::string reason;
    for (auto _ : state) CHECK(evaluateRules(device, Util::getMode(), &reason));
}
BENCHMARK(query_rules)->Arg(10)->Arg(100000);

}  // namespace

}  // namespace android::kus
