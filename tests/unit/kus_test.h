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

#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {

namespace fs = std::filesystem;
using std::chrono::milliseconds, std::this_thread::sleep_for;
using testing::_, testing::AllOf, testing::AnyOf, testing::Contains, testing::Each,
    testing::ElementsAre, testing::EndsWith, testing::ExitedWithCode, testing::Ge,
    testing::HasSubstr, testing::IsEmpty, testing::KilledBySignal, testing::Le,
    testing::MatchesRegex, testing::Not, testing::Pair, testing::PrintToString, testing::SizeIs,
    testing::StartsWith;

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

/**
 * Adds an entry to /sys/bus/usb/devices, a link as in sysfs, to /sys/devices/controller/`name`,
 * with attributes such as "devnum=5, product=A thing". Every other number that a scan reads is
 * `number`.
 */
void addEntry(const std::string& name, const std::string& attributes = "",
              const std::string& number = "0");

/** Adds an interface such as 1-2:1.0, and the directories below it. */
void addInterface(const std::string& name, int interfaceClass, const Texts& directories = {});

/** Adds a device such as 1-2, without interfaces. */
void addDevice(const std::string& name, int devnum, int vendor = 0x1234, int product = 0x5678);

/** Scans entries, in this order, whatever they lack, and returns what goes to standard error. */
std::string scan(const std::string& names);

/** The path of an entry's attribute or subdirectory. */
std::string sysfsPath(const std::string& entry, const std::string& below);

/** What the device-id map may hold of an interface. */
usbinterface_custom mapRecord(const char* name, int category = 0, int vendor = 0);

}  // namespace android::kus
