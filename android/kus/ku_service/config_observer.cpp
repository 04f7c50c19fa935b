// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr char kConfigFileName[] = "usb_device_config.xml";

// Room for the longest event: inotify(7) asks for a header and NAME_MAX + 1 bytes of name.
constexpr size_t kEventBufferSize = 512;

pthread_t observerThread;  // never joined

std::atomic<bool> suspended = false;

// The rest belongs to the observer thread.
int inotifyFd;
int directoryWatch;

/**
 * Set when the backup was copied over a refused file. The next good parse is then the parse of that
 * copy, which must leave the status text, the backup and the controllers as they are.
 */
bool backupRestorePending = false;

bool isDirectory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

void acceptRules() {
    errorMessage = "SUCCESS";
    if (backupRestorePending) {
        backupRestorePending = false;
        return;
    }
    LOG(INFO) << "Parsing success, so update status file and create backup";
    Util::updateErrorFile(statusFilePath, errorMessage);
    Util::copyFileContent(configFilePath, backupFilePath);
    UsbDevice::usb_host_reset(0);
}

// Writing the rules file makes an event of its own, whose parse puts the old rules back in force.
void restoreRules() {
    LOG(INFO) << "Parsing failure, copying backup file content";
    Util::copyFileContent(backupFilePath, configFilePath);
    backupRestorePending = true;
}

void handleRewrite() {
    LOG(INFO) << "Admin usb_device_config.xml config file call parsing";
    Util::createMapFromConfig(configFilePath);
    LOG(INFO) << "Parsing status xml_parse_status " << xml_parse_status;
    if (xml_parse_status) {
        acceptRules();
    } else {
        restoreRules();
    }
}

void handleEvent(const inotify_event& event) {
    if (event.len == 0 || event.wd != directoryWatch || !(event.mask & IN_CLOSE_WRITE)) return;
    LOG(INFO) << "CLOSE_WRITE event triggered on filename " << configDirectory << "/" << event.name;
    if (strcmp(event.name, kConfigFileName) == 0 && !suspended) handleRewrite();
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
    } else {
        LOG(ERROR) << directoryWatch << " < 0 Could not register INotify for" << configDirectory;
    }
    readFileChangeEvent();
    return nullptr;
}

void KUsbService::suspendFileObserver() { suspended = true; }

void KUsbService::readFileChangeEvent() {
    alignas(inotify_event) char buffer[kEventBufferSize];
    while (true) {
        const ssize_t length = read(inotifyFd, buffer, sizeof(buffer));
        if (length < static_cast<ssize_t>(sizeof(inotify_event))) {
            if (errno == EINTR) {
                LOG(INFO) << "(errno == EINTR)";
                continue;
            }
            LOG(INFO) << "Could not get read event, " << strerror(errno);
            return;
        }
        // The kernel pads names so that each event is aligned like the first.
        for (size_t at = 0; length - at >= sizeof(inotify_event);) {
            const auto& event = *reinterpret_cast<const inotify_event*>(buffer + at);
            handleEvent(event);
            at += sizeof(inotify_event) + event.len;
        }
    }
}

}  // namespace android::kus
