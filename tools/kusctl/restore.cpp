// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kusctl.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using Outcome = Verdict::Outcome;
using Restored = Util::Restored;

constexpr char kHelp[] =
    R"(usage: kusctl restore

Puts the backup of the last accepted rules in the place of a rules file that the daemon would refuse
at its next start, that would end it, or that is missing; does nothing where the daemon would accept
the rules file, or would not accept the backup. Decides with the daemon's own parser, and needs no
daemon; one that runs takes the restored file as it takes every rewrite. A program that is writing
the rules file is waited for, half a second at most.

Exit status: 0 restored; 1 nothing was restored, because there is no need to or it is not possible,
as the one line of output tells; 2 wrong use.
)";

/** The first that the functions below log, in place of the error codes that they do not return. */
std::string firstError;

void keepFirstError() {
    base::SetLogger([](auto&&, auto&&, auto&&, auto&&, auto&&, const char* message) {
        if (firstError.empty()) firstError = message;
    });
    base::SetMinimumLogSeverity(base::ERROR);
}

std::string inParentheses(const Verdict& verdict) { return " (" + verdict.status + ")"; }

Verdict judgeInstalledRules() {
    if (access(configFilePath, F_OK) != 0) return {Outcome::kRefused, strerror(errno), 0};
    std::string text;
    if (const std::string reason = readRulesFile(configFilePath, &text); !reason.empty()) {
        fail(std::string(configFilePath) + ": " + reason);
    }
    // What a restore compares with, so that a newer file than the one that is judged stays.
    const std::string* kept = Util::readRules(configFilePath);
    if (kept == nullptr) fail(std::string(configFilePath) + ": " + strerror(errno));
    return judgeText(*kept);
}

/** Ends the program where the backup is no way out. */
void expectGoodBackup(const Verdict& rules) {
    std::string text;
    const std::string unreadable = readRulesFile(backupFilePath, &text);
    const Verdict backup =
        unreadable.empty() ? judgeText(text) : Verdict{Outcome::kRefused, unreadable, 0};
    if (backup.outcome == Outcome::kAccepted) return;
    fail("the rules file is refused" + inParentheses(rules) + ", but the backup is no better" +
         inParentheses(backup));
}

int run(int argc, char** argv) {
    parseOptions(argc, argv, {});
    expectNoArguments(argc, argv);
    keepFirstError();
    while (true) {
        const Verdict rules = judgeInstalledRules();
        if (rules.outcome == Outcome::kAccepted) {
            puts("nothing to do: the rules file is accepted");
            return kNoOrFailed;
        }
        expectGoodBackup(rules);
        const Restored restored = Util::restoreRules();
        // What was being written is there now, and is judged in turn.
        if (restored == Restored::kRewritten) continue;
        if (restored != Restored::kWhole) fail("nothing is restored: " + firstError);
        puts(printable("restored: the rules file was refused" + inParentheses(rules)).c_str());
        return kYes;
    }
}

}  // namespace

const Command kRestoreCommand = {"restore", "put the backup in place of a refused rules file",
                                 kHelp, run};

}  // namespace android::kus
