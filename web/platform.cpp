// SPDX-License-Identifier: Apache-2.0
// What the engine uses of Android's base library, for a browser: there it has neither a package nor
// a system to log to.
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <stdarg.h>
#include <stdio.h>
#include <strings.h>

#include <sstream>

#include "crash/crash_barrier.h"

namespace android::base {
namespace {

LogFunction logger;
LogSeverity minimumSeverity = FATAL;

}  // namespace

class LogMessageData {
  public:
    std::ostringstream text;
    LogSeverity severity;
};

LogMessage::LogMessage(const char*, unsigned int, LogSeverity severity, const char*, int)
    : data_(new LogMessageData) {
    data_->severity = severity;
}

LogMessage::~LogMessage() {
    if (!logger) return;
    // As on a device: each line of a message is one in the log.
    std::istringstream lines(data_->text.str());
    for (std::string line; std::getline(lines, line);) {
        logger(DEFAULT, data_->severity, nullptr, nullptr, 0, line.c_str());
    }
}

std::ostream& LogMessage::stream() { return data_->text; }

bool ShouldLog(LogSeverity severity, const char*) { return severity >= minimumSeverity; }

void SetLogger(LogFunction&& function) { logger = std::move(function); }

ScopedLogSeverity::ScopedLogSeverity(LogSeverity level) : old_(minimumSeverity) {
    minimumSeverity = level;
}

ScopedLogSeverity::~ScopedLogSeverity() { minimumSeverity = old_; }

std::string StringPrintf(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool StartsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

std::string Trim(const std::string& text) {
    constexpr char kBlanks[] = " \f\n\r\t\v";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
}

}  // namespace android::base

namespace android::kus {

// Nothing is shared where there is one thread, and a crash ends it.
SharedStateUse::SharedStateUse() = default;
SharedStateUse::~SharedStateUse() = default;

}  // namespace android::kus
