// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <utility>

#include "kusctl.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

const Command* running = nullptr;

// What getopt_long calls each option but --help.
constexpr int kKnown = 1;

std::string programName() {
    return running == nullptr ? "kusctl" : std::string("kusctl ") + running->name;
}

/**
 * Which option getopt_long refused, and why. `last` is the last argument that it is done with,
 * `options` are those that it knows, and their end.
 */
std::string refusal(const std::string& last, const std::vector<option>& options) {
    const std::string name = last.substr(0, last.find('='));
    const int candidates =
        std::count_if(options.begin(), options.end() - 1, [&](const option& known) {
            return base::StartsWith(std::string("--") + known.name, name);
        });
    // kKnown where it got an argument that it does not take.
    if (optopt == 0) return last + (candidates > 1 ? " is ambiguous" : " is not known");
    if (candidates > 0 && name != last) return name + " takes no value";
    // Of a cluster of letters, which may not be done with.
    return std::string("-") + static_cast<char>(optopt) + " is not known";
}

std::string shortNames(const std::string& prefix) {
    std::vector<std::string> names;
    for (const ClassName& row : classNameTable) {
        if (base::StartsWith(row.name, prefix)) names.push_back(row.name + prefix.size());
    }
    return base::Join(names, ", ");
}

/** The codes in a list of names and numbers. */
std::vector<int32_t> parseCodes(const char* prefix, const std::string& list, int32_t max,
                                std::optional<int32_t> (*codeOf)(const std::string&)) {
    std::vector<int32_t> codes;
    for (const std::string& item : base::Split(list, ",")) {
        const std::string text = base::Trim(item);
        const std::optional<int32_t> code = codeOf(text);
        if (!code) {
            wrongUse("'" + text + "' is neither a number up to " + std::to_string(max) +
                     " nor one of " + shortNames(prefix));
        }
        codes.push_back(*code);
    }
    return codes;
}

}  // namespace

Option::Option(const char* name, bool* flag) : Option(name, [flag] { *flag = true; }) {}

Option::Option(const char* name, std::function<void()> take)
    : name(name), hasValue(false), take([take](const char*) { take(); }) {}

Option::Option(const char* name, std::string* value)
    : Option(name, [value](const char* text) { *value = text; }) {}

Option::Option(const char* name, std::function<void(const char*)> take)
    : name(name), hasValue(true), take(std::move(take)) {}

void parseOptions(int argc, char** argv, const std::vector<Option>& options) {
    std::vector<option> known;
    for (const Option& option : options) {
        known.push_back(
            {option.name, option.hasValue ? required_argument : no_argument, nullptr, kKnown});
    }
    known.push_back({"help", no_argument, nullptr, 'h'});
    known.push_back({});
    opterr = 0;
    for (int found, index; (found = getopt_long(argc, argv, ":h", known.data(), &index)) != -1;) {
        if (found == 'h') {
            fputs(running->help, stdout);
            exit(kYes);
        }
        if (found == ':') wrongUse(std::string("option ") + argv[optind - 1] + " needs a value");
        if (found == '?') wrongUse("option " + refusal(argv[optind - 1], known));
        options[index].take(optarg);
    }
}

void expectNoArguments(int argc, char** argv) {
    if (optind < argc) wrongUse(std::string("unexpected argument '") + argv[optind] + "'");
}

void wrongUse(const std::string& message) {
    fprintf(stderr, "%s: %s (see '%s --help')\n", programName().c_str(), printable(message).c_str(),
            programName().c_str());
    exit(kWrongUse);
}

void fail(const std::string& message) {
    note(message);
    exit(kNoOrFailed);
}

void note(const std::string& message) {
    fprintf(stderr, "%s: %s\n", programName().c_str(), printable(message).c_str());
}

int runCommand(const Command& command, int argc, char** argv) {
    running = &command;
    const int status = command.run(argc, argv);
    if (fflush(stdout) != 0 || ferror(stdout)) fail("cannot write the output");
    return status;
}

int32_t parseId(const std::string& what, const std::string& text) {
    constexpr uint32_t kMax = kMaxUsbId;
    uint32_t id;
    if (!base::ParseUint(text, &id, kMax)) {
        if (base::ParseUint("0x" + text, &id, kMax)) {
            wrongUse(what + " '" + text + "' is hexadecimal: write 0x" + text);
        }
        wrongUse(what + " '" + text + "' is no number from 0 to 65535 (0x... when hexadecimal)");
    }
    return id;
}

int32_t parseDeviceId(const std::string& text) {
    int32_t id;
    if (!base::ParseInt(text, &id)) {
        wrongUse("'" + text + "' is no device id as 'kusctl list' shows it");
    }
    return id;
}

std::vector<int32_t> parseUsbClasses(const std::string& list) {
    return parseCodes(kUsbClassPrefix, list, kMaxUsbClass, usbClassCode);
}

std::vector<int32_t> parseInputSources(const std::string& list) {
    return parseCodes(kInputSourcePrefix, list, INT32_MAX, inputSourceCode);
}

}  // namespace android::kus
