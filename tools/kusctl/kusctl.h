// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android/kus/DeviceInfo.h>
#include <android/kus/IKUsbService.h>
#include <json/json.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "policy.h"

namespace android::kus {

inline constexpr int kYes = 0;
inline constexpr int kNoOrFailed = 1;
inline constexpr int kWrongUse = 2;

struct Command {
    const char* name;
    const char* summary;
    const char* help;
    /** Gets the command's name as argv[0]. Returns the exit status. */
    int (*run)(int argc, char** argv);
};

extern const Command kAllowCommand, kApplyCommand, kBlockCommand, kCheckCommand, kDiffCommand,
    kDumpCommand, kFindCommand, kGenerateCommand, kLintCommand, kListCommand, kResetCommand,
    kRestoreCommand, kWatchCommand;

// The command line: command_line.cpp

/** Runs the command with its name as argv[0], and returns the exit status. */
int runCommand(const Command& command, int argc, char** argv);

struct Option {
    /** One without a value, and what it does: sets a flag, or something else. */
    Option(const char* name, bool* flag);
    Option(const char* name, std::function<void()> take);
    /** One with a value, and where it goes. */
    Option(const char* name, std::string* value);
    Option(const char* name, std::function<void(const char* value)> take);

    const char* name;
    bool hasValue;
    std::function<void(const char* value)> take;
};

/**
 * Takes the running command's options, in their order; optind is then the first other argument.
 * Answers --help, and ends the program on a wrong option.
 */
void parseOptions(int argc, char** argv, const std::vector<Option>& options);
/** Ends the program on arguments beyond the options. */
void expectNoArguments(int argc, char** argv);
/** Of a vendor or a product. Ends the program on another text, as the three below. */
int32_t parseId(const std::string& what, const std::string& text);
int32_t parseDeviceId(const std::string& text);
/** The codes in a list of names and numbers. */
std::vector<int32_t> parseUsbClasses(const std::string& list);
std::vector<int32_t> parseInputSources(const std::string& list);
[[noreturn]] void wrongUse(const std::string& message);
[[noreturn]] void fail(const std::string& message);
/** A line on standard error that changes no outcome. */
void note(const std::string& message);

// The service: service.cpp

/** Ends the program where the service, or binder itself, cannot be reached. */
sp<IKUsbService> connectToService();
/** Null where it is not there, and where the service manager has died. */
sp<IKUsbService> findService();
/** Ends the program where the service manager has died: this process finds no service any more. */
void expectServiceManager();
/** Ends the program when a call did not reach the service. */
void expectOk(const binder::Status& status);
/** Ends the program where they cannot be had. */
std::vector<DeviceInfo> recordedDevices();
/** Ends the program because no recorded device has this id. */
[[noreturn]] void failAsUnrecorded(int32_t id);

// Texts: text.cpp

/** printable, for an XML comment. */
std::string commentText(const std::string& text);
/** Control characters and bytes that are no UTF-8 as \n, \t, \r or \xNN. */
std::string printable(const std::string& text);
/** "usb" or "input", of a record's deviceType. */
std::string kindName(int32_t deviceType);
/** What a decision looks at in the service's record. */
DeviceFacts factsOf(const DeviceInfo& device);
/** "allowed" or "refused", in colour on a terminal. */
std::string verdictText(bool allowed);
/** What a device is, without what the service adds to its record. */
Json::Value identityToJson(const DeviceInfo& device);
Json::Value recordToJson(const DeviceInfo& device);
/** On one line when `indentation` is empty. What is no UTF-8 is replaced. */
std::string jsonText(const Json::Value& value, const std::string& indentation = "  ");

/** An array of the items, or of what `toValue` makes of each. */
template <typename Items, typename ToValue>
Json::Value toArray(const Items& items, const ToValue& toValue) {
    Json::Value array = Json::arrayValue;
    for (const auto& item : items) array.append(toValue(item));
    return array;
}

template <typename Items>
Json::Value toArray(const Items& items) {
    return toArray(items, [](const auto& item) { return item; });
}

// Names: usb_ids.cpp

/**
 * From the public list of USB ids, printable; empty where it is not known or the list is not there.
 * The name of a vendor where `product` is kUnknownId.
 */
std::string usbName(int32_t vendor, int32_t product);
/** The name that the device has, or else the one on the list. */
std::string nameOf(const DeviceInfo& device);

// Rules files and the verdicts on them: verdict.cpp

/** Returns why a path cannot be read as a rules file, or an empty text. */
std::string readRulesFile(const std::string& path, std::string* text);
/**
 * Replaces a file by way of one beside it, with the owner and mode of the old one; returns why it
 * could not, or an empty text. Whenever it is interrupted the file is the old or the new one,
 * whole. Of two at once one may spoil the other's: hold a lock.
 */
std::string replaceFile(const std::string& path, const std::string& text);
/** Parses in a child process, because some texts end the process that reads them. */
Verdict judgeText(const std::string& text);

// Rules that the device would take: rules_file.cpp

/** The text of a rules file; ends the program where there is none. */
std::string rulesText(const std::string& path);
/** Ends the program where the device would not take the rules. */
Rules loadRules(const std::string& path);
Rules loadRules(const std::string& path, const std::string& text);

// What other commands print, too: lint.cpp and diff.cpp

/** Prints what 'kusctl lint' does of a file with this text. False: the device would not take it. */
bool printLint(const std::string& path, const std::string& text);
/** Prints a line for each class, vendor and product that changes. False: none does. */
bool printRuleChanges(Rules* before, Rules* after, const std::string& oldPath,
                      const std::string& newPath);

// Devices as 'list' and 'watch' print them in JSON, one a line: device_lines.cpp

struct DeviceLine {
    DeviceFacts device;
    /** The line's JSON object. */
    std::string_view json;
    /** With the escapes of JSON: see unescaped. */
    std::string_view name;
};

struct DeviceCounts {
    uint64_t devices;
    /** Lines that are no device; each has had a note. */
    uint64_t others;
};

/**
 * Gives out the devices of a file, or of the standard input where `path` is "-". Keeps one line at
 * a time. What 'watch' tells of a device that goes away is passed over. Ends the program where the
 * file cannot be read.
 */
DeviceCounts forEachDevice(const std::string& path, bool showProgress,
                           const std::function<void(const DeviceLine&)>& take);
std::string unescaped(std::string_view text);

}  // namespace android::kus
