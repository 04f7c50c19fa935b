// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "kusctl.h"

namespace android::kus {
namespace {

const Command* const kCommands[] = {&kListCommand, &kWatchCommand,    &kCheckCommand,
                                    &kLintCommand, &kGenerateCommand, &kResetCommand,
                                    &kDumpCommand};

const Command* running = nullptr;

void printHelp() {
    puts(
        "usage: kusctl COMMAND [ARGUMENT]...\n"
        "\n"
        "Shows which USB and input devices the device's policy allows, and checks the rules.\n");
    for (const Command* command : kCommands) printf("  %-9s %s\n", command->name, command->summary);
    puts(
        "\n"
        "'kusctl COMMAND --help' explains one of them.\n"
        "\n"
        "Exit status: 0 yes or done, 1 no or failed, 2 wrong use.");
}

const Command* findCommand(const char* name) {
    for (const Command* command : kCommands) {
        if (strcmp(command->name, name) == 0) return command;
    }
    return nullptr;
}

std::string programName() {
    return running == nullptr ? "kusctl" : std::string("kusctl ") + running->name;
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

int nextOption(int argc, char** argv, const std::vector<option>& options) {
    std::vector<option> known = options;
    known.push_back({"help", no_argument, nullptr, 'h'});
    known.push_back({});
    opterr = 0;
    const int found = getopt_long(argc, argv, ":h", known.data(), nullptr);
    if (found == 'h') {
        fputs(running->help, stdout);
        exit(kYes);
    }
    if (found == ':') wrongUse(std::string("option ") + argv[optind - 1] + " needs a value");
    if (found == '?') wrongUse(std::string("option ") + argv[optind - 1] + " is not known");
    return found;
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

int runCommand(int argc, char** argv) {
    if (argc < 2) wrongUse("no command given");
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        printHelp();
        return kYes;
    }
    const Command* command = findCommand(argv[1]);
    if (command == nullptr) wrongUse(std::string("there is no command '") + argv[1] + "'");
    running = command;
    quietLogs();
    const int status = command->run(argc - 1, argv + 1);
    if (fflush(stdout) != 0 || ferror(stdout)) fail("cannot write the output");
    return status;
}

}  // namespace android::kus

int main(int argc, char** argv) { return android::kus::runCommand(argc, argv); }
