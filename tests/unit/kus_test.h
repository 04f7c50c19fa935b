// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace android::kus {

/**
 * Every test starts with /data/system/usbdeviceconfig and nothing else in /data and /sys, no
 * properties, the process-wide tables as at start-up, and an empty log.
 */
class KusTest : public testing::Test {
  protected:
    KusTest();
};

/** The log lines since the last call, oldest first: "I " or "E " or "F ", and the text. */
std::vector<std::string> takeLog();

/** The same, once a thread has logged a line with this text; gives up in time. */
std::vector<std::string> takeLogUntil(const std::string& text,
                                      std::chrono::milliseconds timeout = std::chrono::seconds(10));

/** Writes a file whole, with the directories above it. */
void writeFile(const std::string& path, const std::string& content);

/** The content of a file, or "(no file)". */
std::string readFile(const std::string& path);

/** What `action` writes to standard error. */
std::string stderrOf(const std::function<void()>& action);

/** Loads rules from a file with this text. */
void loadRules(const std::string& xml);

/** Lists these vendors and products, and no others. */
void setVendors(const std::multimap<int32_t, int32_t>& vendors);

}  // namespace android::kus
