// SPDX-License-Identifier: Apache-2.0
#include "gate/sysfs_directory.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <dirent.h>
#include <fcntl.h>

#include <charconv>

namespace android::kus {

SysfsDirectory::SysfsDirectory(const std::string& path)
    : fd_(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

std::optional<std::string> SysfsDirectory::read(const std::string& attribute) const {
    const base::unique_fd file(openat(fd_.get(), attribute.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    if (!file.ok() || !base::ReadFdToString(file.get(), &text)) return std::nullopt;
    return base::Trim(text);
}

std::optional<int> SysfsDirectory::readNumber(const std::string& attribute, int base,
                                              int max) const {
    const auto text = read(attribute);
    if (!text) return std::nullopt;
    const char* const end = text->data() + text->size();
    unsigned value;
    const auto [stop, error] = std::from_chars(text->data(), end, value, base);
    if (error != std::errc() || stop != end || value > static_cast<unsigned>(max)) {
        return std::nullopt;
    }
    return value;
}

bool SysfsDirectory::write(const std::string& attribute, const std::string& text) const {
    const base::unique_fd file(openat(fd_.get(), attribute.c_str(), O_WRONLY | O_CLOEXEC));
    return file.ok() && base::WriteStringToFd(text, file.get());
}

std::vector<std::string> SysfsDirectory::entries() const {
    std::vector<std::string> names;
    const int fd = openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* const directory = fd == -1 ? nullptr : fdopendir(fd);
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(directory);
    return names;
}

}  // namespace android::kus
