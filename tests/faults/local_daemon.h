// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "../device/process.h"
#include "util/Util.h"

namespace android::kus {

using Texts = std::vector<std::string>;

/** What stands in a rules file. */
struct Rules {
    const char* name;
    std::string text;
    /** The answers to classes 1, 8 and 14; none where the rules are not accepted. */
    std::string decisions;
    /** How the status starts when the daemon is through with them. */
    std::string status;

    bool accepted() const { return !decisions.empty(); }
    /** With a line feed after the last line, too. */
    std::string copy() const { return text + '\n'; }
    bool isIn(const std::string& content) const { return content == text || content == copy(); }
};

enum Kind { kGood, kOtherGood, kUnknownElement, kNumberTooLarge, kEmpty, kKindCount };

/** No two serials give the same text. */
Rules makeRules(int kind, int serial);

/** The content of a file; "(no file)" where there is none. */
std::string contentOf(const std::string& path);
/** How long a content is, and how it starts: for messages. */
std::string gist(const std::string& content);
/** Truncates the file and writes it. */
void writeFile(const std::string& path, const std::string& text);

/** Longer than anything here takes. */
constexpr std::chrono::seconds kPatience(8);

/** Starts with an empty configuration directory and no daemon. */
class LocalDaemonTest : public testing::Test {
  protected:
    LocalDaemonTest();

    /** Starts the daemon, or another command, by way of a wrapper, and waits for nothing. */
    void start(const Texts& wrapper = {}, const Texts& command = {LOCAL_KUSD_PATH});
    /** Until it watches its rules; false when it ended before that. */
    bool awaitStart();
    /** Starts it, and again where it ends at once, as init would. */
    void bringUp();
    /**
     * Waits until the daemon has handled every rewrite so far and what it wrote itself. False when
     * it ended, or goes on without end.
     */
    bool settle();
    /** Whether it ends in time. */
    bool ended(std::chrono::seconds timeout = {}) { return !daemon_ || daemon_->ends(timeout); }
    /** Waits for its end: what it exits with, or minus the signal that it dies of. */
    int exitStatus();
    void kill();

    /** Asks for classes 1, 8 and 14: '1' for each that is allowed, '0' for each that is not. */
    std::string decisions();
    /** What the daemon has logged since its start, from this offset on. */
    std::string log(size_t from = 0);

    void writeRules(const Rules& rules) { writeFile(configFilePath, rules.text); }
    /** Brings these rules in force, and the daemon up where it is not. */
    void settleOn(const Rules& rules);
    /** Both files, the status and the decisions agree. */
    void expectInForce(const Rules& rules);

    std::unique_ptr<Process> daemon_;

  private:
    /** Where this text ends in the log, at `from` or later; npos when it does not come. */
    size_t awaitInLog(const std::string& text, size_t from);

    int exitStatus_ = 0;
    /** Up to here settle has looked at the log. */
    size_t seen_ = 0;
};

}  // namespace android::kus
