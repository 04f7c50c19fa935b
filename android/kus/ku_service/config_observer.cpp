// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <string>
#include <utility>

#include "crash/crash_barrier.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr char kConfigFileName[] = "usb_device_config.xml";

// Room for the longest event: inotify(7) asks for a header and NAME_MAX + 1 bytes of name.
constexpr size_t kEventBufferSize = 512;

// Between restores that don't help, because the backup is missing or refused itself.
constexpr milliseconds kRestoreInterval(1000);

constexpr milliseconds kResetPollInterval(10);

// How long one who has begun to write the rules file may take to close it.
constexpr milliseconds kWriterPatience(1000);

pthread_t observerThread;  // never joined

// The rest belongs to the observer thread.
int inotifyFd;
int directoryWatch;

struct FileEvent {
    uint32_t mask;
    std::string name;
};

/**
 * What was read from the inotify descriptor and is still to be looked at. Never destroyed: the
 * thread runs to the very end of the process.
 */
auto& events = *new std::deque<FileEvent>;

/**
 * Set when the backup was copied over a refused file. The next good parse is then the parse of that
 * copy, which must leave the status text, the backup and the controllers as they are.
 */
bool backupRestorePending = false;
steady_clock::time_point lastRestore;

bool isDirectory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

/** Waits for events and puts them into the queue; false, with errno, when they cannot be read. */
bool readEvents() {
    alignas(inotify_event) char buffer[kEventBufferSize];
    const ssize_t length = read(inotifyFd, buffer, sizeof(buffer));
    if (length < static_cast<ssize_t>(sizeof(inotify_event))) return false;
    // The kernel pads names so that each event is aligned like the first.
    for (size_t at = 0; length - at >= sizeof(inotify_event);) {
        const auto& event = *reinterpret_cast<const inotify_event*>(buffer + at);
        at += sizeof(inotify_event) + event.len;
        if (event.mask & IN_Q_OVERFLOW) {
            events.push_back({event.mask, ""});
        } else if (event.len > 0 && event.wd == directoryWatch &&
                   (event.mask & (IN_CLOSE_WRITE | IN_MODIFY))) {
            events.push_back({event.mask, event.name});
        }
    }
    return true;
}

bool isQueued(uint32_t mask) {
    return std::any_of(events.begin(), events.end(), [mask](const FileEvent& event) {
        return (event.mask & mask) && event.name == kConfigFileName;
    });
}

/**
 * True when the rules file has been rewritten, and closed, since the event that is being handled.
 * Waits `patience` for that, and kWriterPatience once somebody has begun to write it.
 */
bool rewriteFollows(milliseconds patience) {
    const auto start = steady_clock::now();
    while (!isQueued(IN_CLOSE_WRITE)) {
        const milliseconds limit =
            isQueued(IN_MODIFY) ? std::max(patience, kWriterPatience) : patience;
        const auto elapsed = duration_cast<milliseconds>(steady_clock::now() - start);
        pollfd inotify = {inotifyFd, POLLIN, 0};
        const int ready = poll(&inotify, 1, std::max(limit - elapsed, milliseconds(0)).count());
        // Events of other files may come without end.
        if (ready > 0 && elapsed <= limit + kWriterPatience && readEvents()) continue;
        if (ready >= 0 || errno != EINTR) return false;
    }
    return true;
}

/** False when there is nothing to be decided anew. */
bool acceptRules() {
    const SharedStateUse use;
    errorMessage = "SUCCESS";
    // Compared, because a file that was moved here since the restore has no event of its own.
    if (std::exchange(backupRestorePending, false) && Util::readWhatWasRestored()) return false;
    LOG(INFO) << "Parsing success, so update status file and create backup";
    Util::updateErrorFile(statusFilePath, errorMessage);
    Util::backUpRules();
    return true;
}

// The events of the two files come after the reset in the log, but a rewrite does not wait for it.
void resetControllers() {
    UsbDevice::request_host_reset();
    while (UsbDevice::requested_reset_runs() && !rewriteFollows(kResetPollInterval)) continue;
}

// Of a file that was written once more as it was refused. Left in the queue, it would be taken for
// the event of the restore, and that one for a rewrite.
void forgetRewrites() {
    while (rewriteFollows(milliseconds(0))) {
        events.erase(
            std::remove_if(events.begin(), events.end(),
                           [](const FileEvent& event) { return event.name == kConfigFileName; }),
            events.end());
    }
}

// Writing the rules file makes an event of its own, whose parse puts the old rules back in force.
void restoreRules() {
    LOG(INFO) << "Parsing failure, copying backup file content";
    lastRestore = steady_clock::now();
    const Util::Restored restored = Util::restoreRules(forgetRewrites);
    // Without that event it would be the next good rewrite that is taken for the copy.
    backupRestorePending =
        restored == Util::Restored::kWhole || restored == Util::Restored::kNotWhole;
    // Waiting for it is no use, then.
    if (restored == Util::Restored::kNotWhole || restored == Util::Restored::kNotOpened) {
        setRulesInDoubt(false);
    }
}

milliseconds untilNextRestore() {
    if (xml_parse_status || !backupRestorePending) return milliseconds(0);
    return duration_cast<milliseconds>(lastRestore + kRestoreInterval - steady_clock::now());
}

void handleRewrite() {
    // Nothing of this comes after a crash handler's own restore.
    { const SharedStateUse use; }
    LOG(INFO) << "Admin usb_device_config.xml config file call parsing";
    // Until it is known that they stay: a refused file leaves a part of its rules in the tables.
    setRulesInDoubt(true);
    Util::createMapFromConfig(configFilePath);
    const bool restoredInVain =
        !xml_parse_status && backupRestorePending && Util::readWhatWasRestored();
    if (xml_parse_status || restoredInVain) setRulesInDoubt(false);
    LOG(INFO) << "Parsing status xml_parse_status " << xml_parse_status;
    if (rewriteFollows(untilNextRestore())) {
        // The later one decides alone, as if the kernel had made one event of the two.
        backupRestorePending = false;
    } else if (xml_parse_status) {
        if (acceptRules()) resetControllers();
    } else {
        restoreRules();
    }
}

// Without an event: before there was a watch, or when the kernel's queue was full.
void handleUntoldRewrite() {
    if (Util::rulesFileHasChanged() && !rewriteFollows(milliseconds(0))) handleRewrite();
}

void handleEvent(const FileEvent& event) {
    if (event.mask & IN_Q_OVERFLOW) handleUntoldRewrite();
    if (!(event.mask & IN_CLOSE_WRITE)) return;
    LOG(INFO) << "CLOSE_WRITE event triggered on filename " << configDirectory << "/" << event.name;
    if (event.name == kConfigFileName) handleRewrite();
}

}  // namespace

void KUsbService::registerFileObserverViaThread() {
    const int result = pthread_create(&observerThread, nullptr, registerFileObserver, nullptr);
    LOG(INFO) << "registerFileObserverViaThread result--" << result;
}

void* KUsbService::registerFileObserver(void*) {
    inotifyFd = inotify_init();
    if (!isDirectory(configDirectory)) LOG(INFO) << "No directory";
    directoryWatch = inotify_add_watch(inotifyFd, configDirectory, IN_ALL_EVENTS);
    if (directoryWatch >= 0) {
        LOG(INFO) << "registered successfully file observer";
        if (rulesAreLeftByCrash) {
            handleRewrite();
        } else {
            handleUntoldRewrite();
        }
    } else {
        LOG(ERROR) << directoryWatch << " < 0 Could not register INotify for" << configDirectory;
    }
    readFileChangeEvent();
    return nullptr;
}

void KUsbService::readFileChangeEvent() {
    while (true) {
        // The start may have queued some already, while it looked for a rewrite without an event.
        while (!events.empty()) {
            const FileEvent event = std::move(events.front());
            events.pop_front();
            handleEvent(event);
        }
        if (readEvents()) continue;
        if (errno != EINTR) {
            LOG(INFO) << "Could not get read event, " << strerror(errno);
            return;
        }
        LOG(INFO) << "(errno == EINTR)";
    }
}

}  // namespace android::kus
