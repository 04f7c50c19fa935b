// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <sstream>
#include <thread>
#include <utility>

#include "crash/crash_barrier.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::unique_fd;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// For those who have the rules file open when it is to be restored. A crash waits longer.
constexpr milliseconds kLongestHoldUp(500);
constexpr milliseconds kHoldInterval(1);

/** What a file holds, or why it cannot be read. */
struct Text {
    std::string content;
    int error = 0;
};

/** Two texts with the same version are taken for the same. */
using Version = size_t;

constexpr Version kUnreadable = 0;
constexpr Version kNothingRead = 1;

/** What the last parse read. Used by the one thread that parses. */
std::string rulesText;
/** Its version, which the crash handler looks at too. */
std::atomic<Version> rulesVersion = kNothingRead;
/** Version of what the last restore left in the rules file. */
std::atomic<Version> restoredVersion = kNothingRead;

/** Descriptor of the rules file while heldRulesFile keeps others from opening it, or -1. */
std::atomic<int> heldDescriptor = -1;

Text readFile(const std::string& path) {
    Text text;
    if (!base::ReadFileToString(path, &text.content, /*follow_symlinks=*/true)) text.error = errno;
    return text;
}

Version versionOf(const Text& text) {
    return text.error != 0 ? kUnreadable : std::hash<std::string>()(text.content);
}

bool isAsLastRead(const Text& rules) {
    return rulesVersion == kNothingRead || rulesVersion == versionOf(rules);
}

void endLastLine(std::string* text) {
    if (!text->empty() && text->back() != '\n') *text += '\n';
}

/** A file that is to be replaced. */
struct Destination {
    std::string path;
    Text before;
    /** Open from the start or while it is replaced. */
    unique_fd fd;
    /** Was opened for writing, so that its observer is told when it is closed. */
    bool opened = false;
    /** Nobody else has it open, nor can open it. */
    bool held = false;
};

Destination closedFile(const std::string& path) {
    Destination file = {path, {}, unique_fd()};
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        file.before.error = errno;
    } else if (S_ISREG(st.st_mode)) {
        // Of a device or a pipe there is nothing to be put back, and no end to be read.
        file.before = readFile(path);
    }
    return file;
}

// The crash handler may run on the very thread that holds the file.
void letRulesFileGo() {
    const int held = heldDescriptor.exchange(-1);
    if (held != -1) fcntl(held, F_SETLEASE, F_UNLCK);
}

/**
 * The rules file, opened so that nobody else can open it: that waits. The kernel denies this to a
 * process that neither owns the file nor has CAP_LEASE, and while somebody has it open (F_SETLEASE
 * in fcntl(2)): one who writes it is soon done. Where it stays denied, what is left is the moment
 * between a look at the file and its emptying.
 */
Destination heldRulesFile() {
    unique_fd fd(open(configFilePath, O_RDWR | O_CLOEXEC));
    if (!fd.ok()) return closedFile(configFilePath);
    // Tells that somebody waits. In place of SIGIO, whose default would end the process.
    fcntl(fd.get(), F_SETSIG, SIGURG);
    heldDescriptor = fd.get();
    const auto deadline = steady_clock::now() + kLongestHoldUp;
    bool held = false;
    while (!(held = fcntl(fd.get(), F_SETLEASE, F_WRLCK) == 0) && errno == EAGAIN &&
           steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kHoldInterval);
    }
    Text text;
    if (!base::ReadFdToString(fd.get(), &text.content)) text.error = errno;
    return {configFilePath, std::move(text), std::move(fd), /*opened=*/true, held};
}

/** While one lives, the crash handler does not run on its thread, which has emptied a file. */
class CrashDeferred {
  public:
    CrashDeferred() {
        sigset_t crash;
        sigemptyset(&crash);
        sigaddset(&crash, SIGSEGV);
        sigaddset(&crash, SIGABRT);
        pthread_sigmask(SIG_BLOCK, &crash, &before_);
    }
    ~CrashDeferred() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    CrashDeferred(const CrashDeferred&) = delete;

  private:
    sigset_t before_;
};

bool empty(Destination* file) {
    if (file->fd.ok()) {
        return lseek(file->fd.get(), 0, SEEK_SET) == 0 && ftruncate(file->fd.get(), 0) == 0;
    }
    file->fd.reset(open(file->path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    file->opened = file->fd.ok();
    return file->opened;
}

// Synced, so that a power cut soon after a rewrite does not leave an empty file.
bool write(const Destination& file, const std::string& content) {
    if (!base::WriteStringToFd(content, file.fd.get())) return false;
    // EINVAL comes from what cannot be synced, such as a device.
    return fsync(file.fd.get()) == 0 || errno == EINVAL;
}

/** False when it could not be opened, and so is untouched, or could not be written whole. */
bool replace(Destination* file, const std::string& content) {
    bool written, putBack = false;
    int error;
    {
        const CrashDeferred deferred;
        written = empty(file) && write(*file, content);
        error = errno;
        if (!written && file->opened) putBack = empty(file) && write(*file, file->before.content);
        heldDescriptor = -1;
        file->fd.reset();
    }
    if (!written && file->opened) {
        LOG(ERROR) << "Could not write " << file->path << ": " << strerror(error)
                   << (putBack ? ", it is put back" : ", nor put it back");
    }
    return written;
}

bool replaceByLines(Destination* file, std::string source) {
    endLastLine(&source);
    const bool replaced = replace(file, source);
    std::istringstream lines(source);
    for (std::string line; std::getline(lines, line);) {
        if (file->opened) {
            LOG(INFO) << line;
        } else {
            LOG(ERROR) << "ODM error in dest file open";
        }
    }
    // A file that cannot be opened misses nothing of a source without a line.
    return replaced || (source.empty() && !file->opened);
}

/** True for a lack of descriptors or memory, and for a failing disk. */
bool isPassing(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO;
}

/** `source` is what `src` holds. */
bool copy(const std::string& src, Text source, Destination* file) {
    LOG(INFO) << " USB xml src path is " << src;
    LOG(INFO) << "USB xml dest path is " << file->path;
    bool copied = false;
    if (source.error == 0) {
        copied = replaceByLines(file, std::move(source.content));
    } else {
        // Without a backup a restore leaves an empty rules file rather than the refused one. Where
        // there is one that just cannot be read now, the file stays as it is.
        if (!isPassing(source.error)) replace(file, "");
        LOG(ERROR) << "USB device error is source file open";
    }
    // Logged after a failure too; the result tells the difference.
    LOG(INFO) << "Usb Device config file copied successfully..!!";
    return copied;
}

}  // namespace

const std::string* Util::readRules(const std::string& path) {
    // In case it ends the process, as a file does that is too large for the memory.
    rulesVersion = kNothingRead;
    Text text = readFile(path);
    rulesVersion = versionOf(text);
    rulesText = std::move(text.content);
    return text.error == 0 ? &rulesText : nullptr;
}

bool Util::rulesFileHasChanged() { return !isAsLastRead(readFile(configFilePath)); }

bool Util::backupDiffersFromRules() {
    Text backup = readFile(backupFilePath);
    endLastLine(&backup.content);
    return backup.error == 0 && !backup.content.empty() && versionOf(backup) != rulesVersion;
}

bool Util::readWhatWasRestored() { return rulesVersion == restoredVersion; }

bool Util::copyFileContent(std::string src, std::string dst) {
    const SharedStateUse use;
    Destination file = closedFile(dst);
    return copy(src, readFile(src), &file);
}

bool Util::backUpRules() {
    const SharedStateUse use;
    Destination backup = closedFile(backupFilePath);
    return copy(configFilePath, {std::exchange(rulesText, {})}, &backup);
}

Util::Restored Util::restoreRules(const std::function<void()>& whenHeld) {
    const SharedStateUse use;
    letRulesFileGo();
    Text backup = readFile(backupFilePath);
    endLastLine(&backup.content);
    restoredVersion = versionOf({backup.content});
    // What a parse could not read to its end is not read here, either.
    Destination rules = rulesVersion == kNothingRead ? Destination{configFilePath, {}, unique_fd()}
                                                     : heldRulesFile();
    // One that is missing, or cannot be read, is no rewrite.
    if (rules.before.error == 0 && !isAsLastRead(rules.before)) {
        LOG(INFO) << "The rules file was rewritten meanwhile, so it stays";
        return rules.opened ? Restored::kRewritten : Restored::kNotOpened;
    }
    if (rules.held) whenHeld();
    if (copy(backupFilePath, std::move(backup), &rules)) return Restored::kWhole;
    restoredVersion = rulesVersion.load();
    return rules.opened ? Restored::kNotWhole : Restored::kNotOpened;
}

void Util::updateErrorFile(std::string path, std::string message) {
    const SharedStateUse use;
    LOG(INFO) << "updateErrorFile called with error message : " << message;
    Destination status = closedFile(path);
    replace(&status, message);
}

}  // namespace android::kus
