// SPDX-License-Identifier: Apache-2.0
//
// An input is a rules file, for the tables that the daemon makes of it, for `kusctl lint` as text
// and JSON, for `kusctl check`, and for the edits of `kusctl allow` and `kusctl block`.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <tuple>

#include "fuzz_world.h"
#include "ku_service/admission_rules.h"
#include "kusctl.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {

// These two stand in for verdict.cpp, which takes a process for each text. Here only a text of
// which the review says that it may end the parser does: any other that ends it is a finding.

std::string readRulesFile(const std::string& path, std::string* text) {
    CHECK(base::ReadFileToString(path, text));
    return "";
}

Verdict judgeText(const std::string& text) {
    const std::vector<Warning> warnings = reviewRules(text);
    if (std::none_of(warnings.begin(), warnings.end(),
                     [](const Warning& warning) { return warning.kind == kCrashKind; })) {
        return Rules().parse(text);
    }
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) {
        for (const int fatal : {SIGABRT, SIGSEGV}) signal(fatal, SIG_DFL);
        prctl(PR_SET_DUMPABLE, 0);
        _exit(Rules().parse(text).outcome == Verdict::Outcome::kRefused ? 0 : 1);
    }
    int status;
    CHECK(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child);
    CHECK(WIFSIGNALED(status) || WEXITSTATUS(status) == 0) << "accepted";
    return WIFSIGNALED(status) ? crashVerdict(warnings) : Rules().parse(text);
}

namespace {

/** Runs a command, and returns what it prints. */
std::string run(const Command& command, std::vector<std::string> arguments, int* status) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return outputOf([&](int file) {
        CHECK(dup2(file, STDOUT_FILENO) == STDOUT_FILENO);
        optind = 0;  // starts getopt afresh
        *status = runCommand(command, arguments.size(), argv.data());
    });
}

Json::Value parseJson(const std::string& output) {
    CHECK_NE(mbstowcs(nullptr, output.c_str(), 0), static_cast<size_t>(-1)) << "no UTF-8";
    Json::Value value;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    CHECK(reader->parse(output.data(), output.data() + output.size(), &value, &errors)) << errors;
    return value;
}

std::string lint() {
    int status;
    const Json::Value reports =
        parseJson(run(kLintCommand, {"lint", "--json", configFilePath}, &status));
    CHECK_EQ(reports.size(), 1u);
    const std::string verdict = reports[0]["verdict"].asString();
    CHECK_EQ(status, verdict == "accepted" ? kYes : kNoOrFailed);

    // A line for the verdict and for each warning, and nothing in them that a terminal acts on.
    const std::string text = run(kLintCommand, {"lint", configFilePath}, &status);
    CHECK(base::EndsWith(text, "\n"));
    const auto lines = base::Split(text.substr(0, text.size() - 1), "\n");
    CHECK_EQ(lines.size(), 1 + reports[0]["warnings"].size());
    for (const std::string& line : lines) CHECK_EQ(printable(line), line);
    return verdict;
}

// Ends the program, which is a finding, where lint said otherwise of the same file.
void check() {
    int status;
    const Json::Value answer =
        parseJson(run(kCheckCommand,
                      {"check", "--json", "--rules", configFilePath, "--vendor", "1155",
                       "--product", "22336", "--class", "2,10"},
                      &status));
    CHECK_EQ(answer["allowed"].asBool(), status == kYes);
    CHECK(!answer["reason"].asString().empty());
}

/** An edit of accepted rules gives accepted ones, touches no other device, and is done once. */
void edit(const std::string& text, bool allow, const Subject& subject, const DeviceFacts& device) {
    const Edit edited = editRules(text, allow, subject);
    if (!edited.problem.empty()) {
        CHECK_EQ(edited.text, text);
        return;
    }
    Rules before, after;
    before.parse(text);
    CHECK(after.parse(edited.text).outcome == Verdict::Outcome::kAccepted);
    CHECK_EQ(editRules(edited.text, allow, subject).text, edited.text);
    const Answer answer = after.decide(device);
    // The rules that are taken away may not be all that say so.
    if (answer.allowed != allow) CHECK(!answer.lines.empty());
    if (allow == (after.mode() == "whitelist")) CHECK_EQ(answer.allowed, allow);
    for (const Change& change : changesBetween(&before, &after)) {
        CHECK_EQ(change.after.allowed, allow);
        if (subject.classCode) {
            CHECK(change.device.interfaceClassList == device.interfaceClassList);
        } else {
            // Vendors of a lesser id may match by this one.
            CHECK(change.device.vendorId != kUnknownId);
            CHECK_LE(change.device.vendorId, subject.vendor);
        }
    }
}

void edit(const std::string& text) {
    const Subject product = {{}, 1155, 22336}, vendor = {{}, 1155}, printer = {7};
    for (const bool allow : {true, false}) {
        edit(text, allow, product, sampleOf(product));
        edit(text, allow, vendor, sampleOf(product));
        edit(text, allow, printer, sampleOf(printer));
    }
}

auto load(const char* path) {
    configMode = "default";
    Util::createMapFromConfig(path);
    return std::tuple(xml_parse_status, configMode, classList, classNameMap, vidPidMap,
                      lastWholeVendor);
}

bool evaluate(const DeviceFacts& device, const std::string& mode) {
    std::string reason;
    const bool allowed = evaluateRules(device, mode, &reason);
    CHECK(!reason.empty());
    return allowed;
}

/** The review of the text finds its rules apart from the parser, beyond a first error, too. */
void expectConsistentTables(const std::string& text) {
    for (const int32_t code : classList) {
        CHECK(!Util::validateRestrictedClass(code));
        CHECK_EQ(classNameMap.at(code), Util::getClassName(code));
    }
    Rules rules;
    rules.parse(text);
    const DeviceFacts unnamed = sampleOf({});
    for (const DeviceFacts& device : rules.samples()) {
        const bool allowed = evaluate(device, "whitelist");
        CHECK_EQ(evaluate(device, "blacklist"), !allowed);
        CHECK(evaluate(device, "default"));
        const bool isNamed = device.productId != kUnknownId ||
                             (device.vendorId == kUnknownId &&
                              device.interfaceClassList != unnamed.interfaceClassList);
        if (xml_parse_status && isNamed) CHECK(allowed);
    }
}

}  // namespace

void runInput(const std::string& text) {
    setlocale(LC_CTYPE, "C.UTF-8");
    writeFile(configFilePath, text);
    const std::string verdict = lint();
    if (verdict == "crash") return;
    const auto tables = load(configFilePath);
    CHECK_EQ(xml_parse_status, verdict == "accepted");
    expectConsistentTables(text);
    if (verdict != "accepted") return;
    CHECK(Util::copyFileContent(configFilePath, backupFilePath));
    CHECK(load(backupFilePath) == tables);
    check();
    edit(text);
}

}  // namespace android::kus
