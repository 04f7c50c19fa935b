// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kusctl.h"

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

[[noreturn]] void parseAndReport(const std::string& text, const unique_fd& out) {
    crashQuietly();
    const Verdict verdict = Rules().parse(text);
    const Report report = {verdict.outcome == Verdict::Outcome::kAccepted, verdict.line};
    const bool sent = base::WriteFully(out, &report, sizeof(report)) &&
                      base::WriteStringToFd(verdict.status, out.get());
    _exit(sent ? 0 : 1);
}

}  // namespace

std::string readRulesFile(const std::string& path, std::string* text) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    return base::ReadFileToString(path, text, /*follow_symlinks=*/true) ? "" : strerror(errno);
}

// A rename alone is not noticed by the daemon; but the file is closed after it, be it by the end of
// this process, and that makes an event under the name that it has then (inotify(7)).
std::string replaceFile(const std::string& path, const std::string& text) {
    const std::string beside = path + ".new";
    const unique_fd file(
        open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat old;
    const bool replaces = stat(path.c_str(), &old) == 0;
    // The daemon keeps others from its file while it restores it, which only the owner may.
    const bool replaced = file.ok() &&
                          (!replaces || (fchown(file.get(), old.st_uid, old.st_gid) == 0 &&
                                         fchmod(file.get(), old.st_mode & 07777) == 0)) &&
                          base::WriteStringToFd(text, file.get()) && fsync(file.get()) == 0 &&
                          rename(beside.c_str(), path.c_str()) == 0;
    if (replaced) return "";
    const std::string problem = strerror(errno);
    unlink(beside.c_str());
    return problem;
}

Verdict judgeText(const std::string& text) {
    unique_fd in, out;
    if (!base::Pipe(&in, &out)) fail(std::string("cannot make a pipe: ") + strerror(errno));
    fflush(stdout);
    const pid_t child = fork();
    if (child < 0) fail(std::string("cannot start a process: ") + strerror(errno));
    if (child == 0) parseAndReport(text, out);
    out.reset();

    std::string bytes;
    base::ReadFdToString(in.get(), &bytes);
    int status = 0;
    waitpid(child, &status, 0);
    if (bytes.size() < sizeof(Report)) {
        // Nothing that the parser did: somebody else ended it, or the pipe took no report.
        if (!WIFSIGNALED(status) || WTERMSIG(status) == SIGKILL) fail("cannot judge the rules");
        return crashVerdict(reviewRules(text));
    }
    Report report;
    memcpy(&report, bytes.data(), sizeof(report));
    return {report.accepted ? Verdict::Outcome::kAccepted : Verdict::Outcome::kRefused,
            bytes.substr(sizeof(report)), report.line};
}

}  // namespace android::kus
