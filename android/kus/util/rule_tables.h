// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <vector>

namespace android::kus {

/** Code that Util::convert gives a name without a code. */
inline constexpr uint32_t NO_CLASS = 0xFFFFFFFF;

/** A product id in vidPidMap that stands for every product of its vendor. */
inline constexpr int32_t ANY_PRODUCT = -1;

/**
 * Guards the rule tables below. Util::createMapFromConfig holds it exclusively for a whole parse;
 * whoever combines several queries into one decision holds it shared from the first to the last,
 * so that no decision sees half-loaded rules. The queries themselves take no lock.
 */
extern std::shared_mutex& ruleTablesLock;

/**
 * Tells that the tables are about to hold rules which may turn out to be refused and be followed by
 * the restored ones, or that they hold what stays. Takes ruleTablesLock exclusively.
 */
void setRulesInDoubt(bool inDoubt);

/**
 * Waits for rules that stay, until they have been in doubt for a second. `lock` holds
 * ruleTablesLock, before and after.
 */
void awaitRulesThatStay(std::shared_lock<std::shared_mutex>* lock);

/** The root element's mode, as written, even when the file was rejected because of it. */
extern std::string configMode;

/** The code of every class element, in file order, duplicates kept. */
extern std::vector<int32_t> classList;

/** Class code to the name that first gave it. */
extern std::map<int32_t, std::string> classNameMap;

/** Vendor id to product id, or to ANY_PRODUCT. Filled by addVidPid alone. */
extern std::multimap<int32_t, int32_t> vidPidMap;

/** The greatest vendor id that vidPidMap lists with ANY_PRODUCT, if there is one. */
extern std::optional<int32_t> lastWholeVendor;

/** Lists a product, or ANY_PRODUCT, after what is listed of its vendor. */
void addVidPid(int32_t vid, int32_t pid);

/** Empties the three collections of rules. */
void clearRules();

/**
 * "SUCCESS", or why the parser rejected a file. Like xml_parse_status it is used only by the one
 * thread that parses: the main thread at start-up, the observer's afterwards.
 */
extern std::string errorMessage;

/** USB classes that a class element may not name. */
extern const std::vector<int32_t> restrictedClasses;

/** Input-source bit to its name, without the source-class bits in the low byte. */
extern const std::map<int32_t, std::string> inputSourceNames;

/** True when the last parse accepted the file. */
extern bool xml_parse_status;

struct ClassName {
    int32_t code;
    const char* name;
};

/**
 * Names that a class element may use: USB class codes below 256
 * (https://www.usb.org/defined-class-codes), input-source bits above.
 */
extern const ClassName classNameTable[29];

}  // namespace android::kus
