// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace android::kus {

/** Polls until the condition holds; false when it does not in time. */
bool eventually(const std::function<bool()>& condition,
                std::chrono::seconds timeout = std::chrono::seconds(30));

/** Resident memory of a process, in KiB. */
long residentKilobytes(pid_t pid);

/** A child process, its standard input and output in the test's hands. Killed at the end. */
class Process {
  public:
    explicit Process(std::vector<std::string> command);
    ~Process();
    Process(const Process&) = delete;

    /** The next line that it prints; empty when none comes in time. */
    std::string line(int timeoutMs = 30000);
    /** Gives it a line to read. */
    void tell(const std::string& line);
    void poke() { tell(""); }
    void kill(int signal);
    pid_t pid() const { return pid_; }
    /** Whether it ends in time. */
    bool ends(std::chrono::seconds timeout = std::chrono::seconds(30)) const;
    /** Waits for its end: what it exits with, or minus the signal that it dies of. */
    int exitStatus();

  private:
    pid_t pid_;
    int input_;
    int output_;
};

/**
 * A client of the service in a process of its own. It registers one callback this many times and
 * then prints "registered", and for each callback "added ID STATUS" or "removed ID". From inside
 * the callbacks it calls the service. For each poke it unregisters once and prints "unregistered".
 * A hung one does not return from its first callback.
 */
class Client : public Process {
  public:
    explicit Client(int registrations, bool hangs = false);
};

/** Runs this executable as a client, when its arguments say so; -1 when not. */
int runAsClient(int argc, char** argv);

}  // namespace android::kus
