// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::unique_fd;

unique_fd openTruncated(const std::string& path) {
    return unique_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
}

// Synced, so that a power cut soon after a rewrite does not leave an empty file.
bool writeThrough(const unique_fd& fd, const std::string& text) {
    const bool written = android::base::WriteStringToFd(text, fd.get());
    fsync(fd.get());
    return written;
}

bool copyLines(const std::string& src, const std::string& dst) {
    std::ifstream source(src);
    // Opened, and so emptied, before the source is looked at: without a backup a restore leaves
    // an empty rules file rather than the refused one.
    const unique_fd destination = openTruncated(dst);
    if (!source.is_open()) {
        LOG(ERROR) << "USB device error is source file open";
        return false;
    }
    bool copied = true;
    std::string lines;
    for (std::string line; std::getline(source, line);) {
        if (!destination.ok()) {
            LOG(ERROR) << "ODM error in dest file open";
            copied = false;
            continue;
        }
        LOG(INFO) << line;
        lines += line + '\n';
    }
    return destination.ok() ? writeThrough(destination, lines) : copied;
}

}  // namespace

bool Util::copyFileContent(std::string src, std::string dst) {
    LOG(INFO) << " USB xml src path is " << src;
    LOG(INFO) << "USB xml dest path is " << dst;
    const bool copied = copyLines(src, dst);
    // Logged after a failure too; the result tells the difference.
    LOG(INFO) << "Usb Device config file copied successfully..!!";
    return copied;
}

void Util::updateErrorFile(std::string path, std::string message) {
    LOG(INFO) << "updateErrorFile called with error message : " << message;
    const unique_fd file = openTruncated(path);
    if (file.ok()) writeThrough(file, message);
}

}  // namespace android::kus
