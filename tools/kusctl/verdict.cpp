// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kusctl.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using base::unique_fd;

/** What the child sends through the pipe, with the status text behind it. */
struct Report {
    bool accepted;
    int line;
};

// A crash is an answer here: no core file, no crash report, no text of the runtime's on the way.
void crashQuietly() {
    for (const int fatal : {SIGABRT, SIGBUS, SIGSEGV}) signal(fatal, SIG_DFL);
    prctl(PR_SET_DUMPABLE, 0);
    dup2(unique_fd(open("/dev/null", O_WRONLY | O_CLOEXEC)).get(), STDERR_FILENO);
}

[[noreturn]] void parseAndReport(const std::string& path, const unique_fd& out) {
    crashQuietly();
    Report report = {};
    std::string status;
    Util::readConfig(path, [&](const std::string& message, int line) {
        status = message;
        report.line = line;
    });
    report.accepted = xml_parse_status;
    const bool sent =
        base::WriteFully(out, &report, sizeof(report)) && base::WriteStringToFd(status, out.get());
    _exit(sent ? 0 : 1);
}

}  // namespace

std::string whyUnreadable(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    return access(path.c_str(), R_OK) == 0 ? "" : strerror(errno);
}

Verdict judgeRules(const std::string& path) {
    unique_fd in, out;
    if (!base::Pipe(&in, &out)) fail(std::string("cannot make a pipe: ") + strerror(errno));
    fflush(stdout);
    const pid_t child = fork();
    if (child < 0) fail(std::string("cannot start a process: ") + strerror(errno));
    if (child == 0) parseAndReport(path, out);
    out.reset();

    std::string bytes;
    base::ReadFdToString(in.get(), &bytes);
    int status = 0;
    waitpid(child, &status, 0);
    if (bytes.size() < sizeof(Report)) {
        // Nothing that the parser did: somebody else ended it, or the pipe took no report.
        if (!WIFSIGNALED(status) || WTERMSIG(status) == SIGKILL) fail("cannot judge " + path);
        return {Verdict::Outcome::kCrash, "Unable to apply the USB Admin config rules", 0};
    }
    Report report;
    memcpy(&report, bytes.data(), sizeof(report));
    if (report.accepted) return {Verdict::Outcome::kAccepted, "SUCCESS", 0};
    return {Verdict::Outcome::kRefused, bytes.substr(sizeof(report)), report.line};
}

}  // namespace android::kus
