// SPDX-License-Identifier: Apache-2.0
#include "util/rule_tables.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace android::kus {
namespace {

constexpr std::chrono::seconds kLongestDoubt(1);

// Guarded by ruleTablesLock.
bool rulesInDoubt = false;
std::chrono::steady_clock::time_point doubtEnds;

// Neither this nor ruleTablesLock is ever destroyed: at the exit after a crash decisions may still
// wait for them.
auto& rulesStay = *new std::condition_variable_any;

std::map<int32_t, std::string> inputSourceRows() {
    std::map<int32_t, std::string> rows;
    for (const auto& [code, name] : classNameTable) {
        if (code > 0xFF) rows.emplace(code, name);
    }
    return rows;
}

}  // namespace

std::shared_mutex& ruleTablesLock = *new std::shared_mutex;

std::string configMode = "default";
std::vector<int32_t> classList;
std::map<int32_t, std::string> classNameMap;
std::multimap<int32_t, int32_t> vidPidMap;
std::optional<int32_t> lastWholeVendor;
std::string errorMessage = "SUCCESS";
const std::vector<int32_t> restrictedClasses = {0x00, 0x03, 0x09, 0xEF, 0xFE, 0xFF};
const std::map<int32_t, std::string> inputSourceNames = inputSourceRows();
bool xml_parse_status = false;

void setRulesInDoubt(bool inDoubt) {
    const std::unique_lock lock(ruleTablesLock);
    if (inDoubt && !rulesInDoubt) doubtEnds = std::chrono::steady_clock::now() + kLongestDoubt;
    rulesInDoubt = inDoubt;
    rulesStay.notify_all();
}

void awaitRulesThatStay(std::shared_lock<std::shared_mutex>* lock) {
    while (rulesInDoubt) {
        // A copy: the wait gives the lock up, and another doubt may begin meanwhile.
        const auto end = doubtEnds;
        if (std::chrono::steady_clock::now() >= end) return;
        rulesStay.wait_until(*lock, end);
    }
}

void addVidPid(int32_t vid, int32_t pid) {
    // Spares a file that is sorted by vendor the search.
    vidPidMap.emplace_hint(vidPidMap.end(), vid, pid);
    if (pid == ANY_PRODUCT && lastWholeVendor < vid) lastWholeVendor = vid;
}

void clearRules() {
    classList.clear();
    classNameMap.clear();
    vidPidMap.clear();
    lastWholeVendor.reset();
}

}  // namespace android::kus
