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

constexpr char kCrashStatus[] = "Unable to apply the USB Admin config rules";

/** What the administrator writes into the rules file. */
struct Rules {
    std::string text;
    /** The answers to classes 1, 8 and 14 under them; empty where they are not accepted. */
    std::string decisions;

    /** As the daemon copies them: with a line feed after the last line, too. */
    std::string copy() const { return text + '\n'; }
    bool accepted() const { return !decisions.empty(); }
    /** True for the text as it was written, and for its copy. */
    bool isIn(const std::string& content) const { return content == text || content == copy(); }
};

/** Each takes some hundred bytes a line of padding; `serial` tells one text from the next. */
Rules goodRules(int serial, int padding = 100);
Rules otherGoodRules(int serial, int padding = 100);
/** Lists a class before an element that the parser does not know. */
Rules unknownElement(int serial);
/** Ends the daemon. */
Rules numberTooLarge(int serial);

/** The content of a file; "(no file)" where there is none. */
std::string contentOf(const std::string& path);
/** How long a content is and how it starts, for messages. */
std::string gist(const std::string& content);
/** Truncates the file and writes it in one go. */
void writeFile(const std::string& path, const std::string& text);

/** With KUS_FULL_RUN in the environment, random runs are long. */
bool fullRun();

/** The configuration directory starts empty, and there is no daemon yet. */
class LocalDaemonTest : public testing::Test {
  protected:
    LocalDaemonTest();

    /** Starts the daemon without waiting for anything. `wrapper` is a command that runs it. */
    void start(const std::vector<std::string>& wrapper = {}, const char* argument = nullptr);
    /** Until it watches its rules; false when it ended before that. */
    bool awaitStart();
    /** Starts it, and again where it ends at once, as init would. */
    void bringUp();
    bool ended() { return !daemon_ || daemon_->ended(); }
    /** Waits for its end: what it exits with, or minus the signal that it dies of. */
    int exitStatus();
    /** Ends it by SIGKILL where it is still there. */
    void kill();

    /**
     * Waits until the daemon has handled every write so far, and what it wrote itself. False when
     * it ended, or handles its rules again and again.
     */
    bool settle();
    /** For classes 1, 8 and 14: '1' where such a device is allowed, '0' where not. */
    std::string decisions();

    void writeRules(const Rules& rules) { writeFile(configFilePath, rules.text); }
    /** Brings the daemon up, where it is not, and these rules in force. */
    void settleOn(const Rules& rules);
    /** Rules file, backup, status and decisions are those of accepted rules. */
    void expectInForce(const Rules& rules);

    /** What the daemon has logged since its start, from this offset on. */
    std::string log(size_t from = 0);

    /** The failures of this test so far. */
    int failures();

    std::unique_ptr<Process> daemon_;

  private:
    /** Where this text ends in the log, at `from` or later; npos when the daemon ends first. */
    size_t awaitInLog(const std::string& text, size_t from);

    int exitStatus_ = 0;
    /** Up to here the log has been seen by settle. */
    size_t settled_ = 0;
};

}  // namespace android::kus
