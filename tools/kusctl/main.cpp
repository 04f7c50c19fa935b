// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kusctl.h"

namespace android::kus {
namespace {

const Command* const kCommands[] = {
    &kListCommand,     &kWatchCommand, &kCheckCommand, &kDiffCommand, &kLintCommand,
    &kGenerateCommand, &kAllowCommand, &kBlockCommand, &kFindCommand, &kApplyCommand,
    &kRestoreCommand,  &kResetCommand, &kDumpCommand};

void printHelp() {
    puts(
        "usage: kusctl COMMAND [ARGUMENT]...\n"
        "\n"
        "Shows which USB and input devices the device's policy allows; checks, edits\n"
        "and applies the rules.\n");
    for (const Command* command : kCommands) printf("  %-9s %s\n", command->name, command->summary);
    puts(
        "\n"
        "'kusctl COMMAND --help' explains one of them.\n"
        "\n"
        "Exit status: 0 yes or done, 1 no or failed, 2 wrong use; of 'apply' 3, too.");
}

const Command* findCommand(const char* name) {
    for (const Command* command : kCommands) {
        if (strcmp(command->name, name) == 0) return command;
    }
    return nullptr;
}

// The libraries below log what the daemon logs; only what ends the process concerns a user here.
void quietLogs() {
    base::SetMinimumLogSeverity(base::FATAL);
    base::SetLogger([](auto&&...) {});
    base::SetAborter([](const char* message) {
        fprintf(stderr, "kusctl: %s\n", message);
        _exit(kNoOrFailed);
    });
}

}  // namespace

int run(int argc, char** argv) {
    if (argc < 2) wrongUse("no command given");
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        printHelp();
        return kYes;
    }
    const Command* command = findCommand(argv[1]);
    if (command == nullptr) wrongUse(std::string("there is no command '") + argv[1] + "'");
    quietLogs();
    return runCommand(*command, argc - 1, argv + 1);
}

}  // namespace android::kus

int main(int argc, char** argv) { return android::kus::run(argc, argv); }
