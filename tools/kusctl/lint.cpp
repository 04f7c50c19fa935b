// SPDX-License-Identifier: Apache-2.0
#include <stdio.h>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl lint [--json] FILE...

Checks rules files before they reach a device, with the daemon's own parser. Prints for each file
the status text that the device would report, with the line it comes from, and warns of what the
parser takes without a word. Writes nothing, and needs no daemon.

  --json  prints an array of objects: file, verdict ("accepted", "refused", "crash" or
          "unreadable"), status, line and warnings (each with kind, line and message)

Kinds of warnings: crash, allows-nothing, duplicate, whole-vendor, ignored, taken-as-product,
never-matches, blanks.

Exit status: 0 when every file is accepted, warnings or not; 1 when one is not; 2 wrong use.
)";

struct FileReport {
    std::string file;
    /** "accepted", "refused", "crash" or "unreadable". */
    std::string verdict;
    std::string status;
    int line = 0;
    std::vector<Warning> warnings;
};

FileReport lintFile(const std::string& path) {
    std::string text;
    if (const std::string reason = readRulesFile(path, &text); !reason.empty()) {
        return {path, "unreadable", reason, 0, {}};
    }
    const std::vector<Warning> warnings = reviewRules(text);
    const Verdict verdict = judgeText(text);
    return {path, nameOf(verdict.outcome), verdict.status, verdict.line, warnings};
}

void printFinding(const std::string& file, int line, const std::string& text) {
    const std::string place = line > 0 ? file + ":" + std::to_string(line) : file;
    printf("%s: %s\n", printable(place).c_str(), printable(text).c_str());
}

void printText(const FileReport& report) {
    if (report.verdict == "unreadable") return note(report.file + ": " + report.status);
    printFinding(report.file, report.line, report.verdict + ": " + report.status);
    for (const Warning& warning : report.warnings) {
        printFinding(report.file, warning.line, "warning: " + warning.message);
    }
}

Json::Value toJson(const FileReport& report) {
    Json::Value value;
    value["file"] = report.file;
    value["verdict"] = report.verdict;
    value["status"] = report.status;
    value["line"] = report.line;
    value["warnings"] = Json::arrayValue;
    for (const Warning& warning : report.warnings) {
        Json::Value item;
        item["kind"] = warning.kind;
        item["line"] = warning.line;
        item["message"] = warning.message;
        value["warnings"].append(item);
    }
    return value;
}

int run(int argc, char** argv) {
    bool json = false;
    while (nextOption(argc, argv, {{"json", no_argument, nullptr, 'j'}}) != -1) json = true;
    if (optind == argc) wrongUse("no rules file given");

    Json::Value all = Json::arrayValue;
    int status = kYes;
    for (int i = optind; i < argc; ++i) {
        const FileReport report = lintFile(argv[i]);
        if (report.verdict != "accepted") status = kNoOrFailed;
        if (json) {
            all.append(toJson(report));
        } else {
            printText(report);
        }
    }
    if (json) puts(jsonText(all).c_str());
    return status;
}

}  // namespace

const Command kLintCommand = {"lint", "check rules files before they reach a device", kHelp, run};

}  // namespace android::kus
