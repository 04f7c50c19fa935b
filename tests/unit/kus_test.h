// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {

namespace fs = std::filesystem;
using std::chrono::milliseconds, std::this_thread::sleep_for;
using testing::_, testing::AllOf, testing::AnyOf, testing::Contains, testing::Each,
    testing::ElementsAre, testing::EndsWith, testing::ExitedWithCode, testing::Ge,
    testing::HasSubstr, testing::IsEmpty, testing::KilledBySignal, testing::Le, testing::Not,
    testing::Pair, testing::PrintToString, testing::SizeIs, testing::StartsWith;

using Texts = std::vector<std::string>;
using Vendors = std::multimap<int32_t, int32_t>;

/**
 * Every test starts with /data/system/usbdeviceconfig and nothing else in /data and /sys, no
 * properties, the process-wide tables as at start-up, and an empty log.
 */
class KusTest : public testing::Test {
  protected:
    KusTest();
};

/** The log lines since the last call, oldest first: "I " or "E " or "F ", and the text. */
Texts takeLog();

/** The same, once a thread has logged a line with this text; gives up in time. */
Texts takeLogUntil(const std::string& text, milliseconds timeout = std::chrono::seconds(10));

/** The same as takeLog(), as one text of lines. */
std::string takeLogText();

/** Expects these log lines, texts or matchers, since the last takeLog(), and no others. */
#define EXPECT_LOG(...) EXPECT_THAT(takeLog(), ElementsAre(__VA_ARGS__))

/** How many of the lines begin so. */
int countOf(const std::string& start, const Texts& lines);

/** Writes a file whole, with the directories above it. */
void writeFile(const std::string& path, const std::string& content);

/** The content of a file, or "(no file)". */
std::string readFile(const std::string& path);

/** What `action` writes to standard error. */
std::string stderrOf(const std::function<void()>& action);

/** Loads rules from a file with this text. */
void loadRules(const std::string& xml);

/** Lists these vendors and products, and no others. */
void setVendors(const Vendors& vendors);

}  // namespace android::kus
