// SPDX-License-Identifier: Apache-2.0
//
// An input is a rules file, for `kusctl lint` as text and JSON, `kusctl check`, and the edits of
// `kusctl allow` and `kusctl block`.
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz_world.h"
#include "kusctl.h"
#include "rules_model.h"

namespace android::kus {

// Stand in for verdict.cpp, whose child process would take most of the time: the model knows which
// files end the process that reads them.

std::string readRulesFile(const std::string& path, std::string* text) {
    CHECK(base::ReadFileToString(path, text));
    return "";
}

Verdict judgeText(const std::string& text) {
    if (modelOf(text).ending != RulesModel::Ending::kReturns) {
        return crashVerdict(reviewRules(text));
    }
    return Rules().parse(text);
}

namespace {

constexpr char kFile[] = "/data/rules.xml";

/** Runs a command, and returns what it prints. */
std::string outputOf(const Command& command, std::vector<std::string> arguments, int* status) {
    static const int out = memfd_create("out", MFD_CLOEXEC);
    CHECK(ftruncate(out, 0) == 0 && lseek(out, 0, SEEK_SET) == 0);
    CHECK(dup2(out, STDOUT_FILENO) == STDOUT_FILENO);

    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    optind = 0;  // starts getopt afresh
    *status = runCommand(command, arguments.size(), argv.data());

    std::string text;
    CHECK(lseek(out, 0, SEEK_SET) == 0 && base::ReadFdToString(out, &text));
    return text;
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
        parseJson(outputOf(kLintCommand, {"lint", "--json", kFile}, &status));
    CHECK_EQ(reports.size(), 1u);
    const Json::Value& report = reports[0];
    const std::string verdict = report["verdict"].asString();
    CHECK_EQ(status, verdict == "accepted" ? kYes : kNoOrFailed);

    const auto& warnings = report["warnings"];
    const bool crash = std::any_of(warnings.begin(), warnings.end(),
                                   [](const auto& w) { return w["kind"].asString() == "crash"; });
    if (verdict == "crash") CHECK(crash) << "without the cause";
    if (verdict == "accepted") CHECK(!crash) << "a crash that was not";

    // A line for the verdict and for each warning, and nothing in them that a terminal acts on.
    const std::string text = outputOf(kLintCommand, {"lint", kFile}, &status);
    CHECK(base::EndsWith(text, "\n"));
    const auto lines = base::Split(text.substr(0, text.size() - 1), "\n");
    CHECK_EQ(lines.size(), 1 + warnings.size());
    for (const std::string& line : lines) CHECK_EQ(printable(line), line);
    return verdict;
}

// Ends the program, which is a finding, where lint said otherwise of the same file.
void check() {
    int status;
    const Json::Value answer = parseJson(outputOf(kCheckCommand,
                                                  {"check", "--json", "--rules", kFile, "--vendor",
                                                   "1155", "--product", "22336", "--class", "2,10"},
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

}  // namespace

void runInput(const std::string& text) {
    setlocale(LC_CTYPE, "C.UTF-8");
    writeFile(kFile, text);
    if (lint() != "accepted") return;
    check();
    edit(text);
}

}  // namespace android::kus
