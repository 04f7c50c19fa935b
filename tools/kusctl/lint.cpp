// SPDX-License-Identifier: Apache-2.0
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl lint [--strict] [--format FORMAT] FILE...

Checks rules files before they reach a device, with the daemon's own parser. Prints for each file
the status text that the device would report, with the line it comes from, and warns of what the
parser takes without a word, with the cure. Writes nothing, and needs no daemon.

  --strict         fails on a warning, too; on a note never
  --format FORMAT  text; json, an array of objects: file, verdict ("accepted", "refused", "crash" or
                   "unreadable"), status, line and warnings (each with kind, line, message, cure,
                   and level: "warning" or "note"); github, annotations for a pull request; sarif,
                   for what reviews code
  --json           --format json

Kinds of warnings: after-comment, allows-nothing, blanks, crash, duplicate, encoding, hexadecimal,
ignored, never-matches, no-input, restricted-class, taken-as-product, unknown-class, whole-vendor.
Of notes: restricted-interfaces.

Exit status: 0 when every file is accepted; 1 when one is not, or with --strict has a warning; 2
wrong use.
)";

struct FileReport {
    std::string file;
    /** "accepted", "refused", "crash" or "unreadable". */
    std::string verdict;
    std::string status;
    int line = 0;
    std::vector<Warning> warnings;
};

FileReport lintText(const std::string& path, const std::string& text) {
    const Verdict verdict = judgeText(text);
    return {path, nameOf(verdict.outcome), verdict.status, verdict.line, reviewRules(text)};
}

FileReport lintFile(const std::string& path) {
    std::string text;
    const std::string problem = readRulesFile(path, &text);
    if (!problem.empty()) return {path, "unreadable", problem, 0, {}};
    return lintText(path, text);
}

bool passes(const FileReport& report, bool strict) {
    const bool warned = std::any_of(report.warnings.begin(), report.warnings.end(),
                                    [](const Warning& warning) { return !warning.isNote; });
    return report.verdict == "accepted" && !(strict && warned);
}

const char* levelOf(const Warning& warning) { return warning.isNote ? "note" : "warning"; }

void printFinding(const std::string& file, int line, const std::string& text) {
    const std::string place = line > 0 ? file + ":" + std::to_string(line) : file;
    printf("%s: %s\n", printable(place).c_str(), printable(text).c_str());
}

void printText(const std::vector<FileReport>& reports) {
    for (const FileReport& report : reports) {
        if (report.verdict == "unreadable") {
            note(report.file + ": " + report.status);
            continue;
        }
        printFinding(report.file, report.line, report.verdict + ": " + report.status);
        for (const Warning& warning : report.warnings) {
            printFinding(report.file, warning.line,
                         std::string(levelOf(warning)) + ": " + withCure(warning));
        }
    }
}

void printJson(const std::vector<FileReport>& reports) {
    Json::Value all = Json::arrayValue;
    for (const FileReport& report : reports) {
        Json::Value value;
        value["file"] = report.file;
        value["verdict"] = report.verdict;
        value["status"] = report.status;
        value["line"] = report.line;
        value["warnings"] = Json::arrayValue;
        for (const Warning& warning : report.warnings) {
            Json::Value item;
            item["kind"] = warning.kind;
            item["level"] = levelOf(warning);
            item["line"] = warning.line;
            item["message"] = warning.message;
            item["cure"] = warning.cure;
            value["warnings"].append(item);
        }
        all.append(value);
    }
    puts(jsonText(all).c_str());
}

/** What goes to a review of code: what is wrong, and nothing of what is right. */
struct Finding {
    const char* level;
    std::string kind;
    int line;
    std::string message;
};

std::vector<Finding> findingsOf(const FileReport& report) {
    std::vector<Finding> findings;
    if (report.verdict != "accepted") {
        findings.push_back(
            {"error", report.verdict, report.line, report.verdict + ": " + report.status});
    }
    for (const Warning& warning : report.warnings) {
        findings.push_back({levelOf(warning), warning.kind, warning.line, withCure(warning)});
    }
    return findings;
}

// https://docs.github.com/actions/reference/workflow-commands-for-github-actions
void printGithub(const std::vector<FileReport>& reports) {
    const auto escaped = [](std::string text) {
        text = base::StringReplace(printable(text), "%", "%25", true);
        text = base::StringReplace(text, ":", "%3A", true);
        return base::StringReplace(text, ",", "%2C", true);
    };
    for (const FileReport& report : reports) {
        for (const Finding& finding : findingsOf(report)) {
            const bool isNote = strcmp(finding.level, "note") == 0;
            printf("::%s file=%s,line=%d,title=%s::%s\n", isNote ? "notice" : finding.level,
                   escaped(report.file).c_str(), std::max(finding.line, 1), finding.kind.c_str(),
                   base::StringReplace(printable(finding.message), "%", "%25", true).c_str());
        }
    }
}

std::string toUri(const std::string& path) {
    std::string uri;
    for (const char c : path) {
        const bool plain = isalnum(static_cast<unsigned char>(c)) || strchr("/._-~", c) != nullptr;
        uri +=
            plain ? std::string(1, c) : base::StringPrintf("%%%02X", static_cast<unsigned char>(c));
    }
    return uri;
}

// SARIF 2.1.0: https://docs.oasis-open.org/sarif/sarif/v2.1.0/sarif-v2.1.0.html
void printSarif(const std::vector<FileReport>& reports) {
    Json::Value results = Json::arrayValue;
    for (const FileReport& report : reports) {
        for (const Finding& finding : findingsOf(report)) {
            Json::Value place;
            place["artifactLocation"]["uri"] = toUri(report.file);
            place["region"]["startLine"] = std::max(finding.line, 1);
            Json::Value result;
            result["ruleId"] = finding.kind;
            result["level"] = finding.level;
            result["message"]["text"] = printable(finding.message);
            result["locations"][0]["physicalLocation"] = place;
            results.append(result);
        }
    }
    Json::Value run;
    run["tool"]["driver"]["name"] = "kusctl lint";
    run["results"] = results;
    Json::Value log;
    log["$schema"] = "https://json.schemastore.org/sarif-2.1.0.json";
    log["version"] = "2.1.0";
    log["runs"][0] = run;
    puts(jsonText(log).c_str());
}

struct Format {
    const char* name;
    void (*print)(const std::vector<FileReport>& reports);
};

constexpr Format kFormats[] = {
    {"text", printText}, {"json", printJson}, {"github", printGithub}, {"sarif", printSarif}};

const Format& findFormat(const std::string& name) {
    for (const Format& format : kFormats) {
        if (name == format.name) return format;
    }
    wrongUse("'" + name + "' is no format: give text, json, github or sarif");
}

int run(int argc, char** argv) {
    bool strict = false;
    const Format* format = &kFormats[0];
    parseOptions(argc, argv,
                 {{"strict", &strict},
                  {"format", [&](const char* name) { format = &findFormat(name); }},
                  {"json", [&] { format = &findFormat("json"); }}});
    if (optind == argc) wrongUse("no rules file given");

    std::vector<FileReport> reports;
    for (int i = optind; i < argc; ++i) reports.push_back(lintFile(argv[i]));
    format->print(reports);
    const bool passed = std::all_of(reports.begin(), reports.end(),
                                    [&](const auto& report) { return passes(report, strict); });
    return passed ? kYes : kNoOrFailed;
}

}  // namespace

bool printLint(const std::string& path, const std::string& text) {
    const FileReport report = lintText(path, text);
    printText({report});
    return passes(report, /*strict=*/false);
}

const Command kLintCommand = {"lint", "check rules files before they reach a device", kHelp, run};

}  // namespace android::kus
