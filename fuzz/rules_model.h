// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace android::kus {

/** What the parser has to make of a rules file, worked out apart from it. */
struct RulesModel {
    /** A number that fits no id aborts the parser, a document without an element is a SIGSEGV. */
    enum class Ending { kReturns, kAborts, kSegfaults } ending = Ending::kReturns;

    // What follows holds when the parser returns.

    bool accepted = false;
    /** In file order. */
    std::vector<int32_t> classes;
    /** As vidPidMap. */
    std::multimap<int32_t, int32_t> products;
};

RulesModel modelOf(const std::string& text);

}  // namespace android::kus
