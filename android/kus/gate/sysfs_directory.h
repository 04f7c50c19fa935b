// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <android-base/unique_fd.h>

#include <optional>
#include <string>
#include <vector>

namespace android::kus {

/**
 * A directory in sysfs, held open. Once its device is gone nothing can be read or written through
 * it, also when another device has got its name.
 */
class SysfsDirectory {
  public:
    explicit SysfsDirectory(const std::string& path);

    /** False where there was none. */
    bool isOpen() const { return fd_.ok(); }

    /** An attribute's text without the white space around it; nothing when it cannot be read. */
    std::optional<std::string> read(const std::string& attribute) const;

    /** Nothing for a text that is no number from 0 to `max` in this base. */
    std::optional<int> readNumber(const std::string& attribute, int base, int max) const;

    /** False, with errno, when the attribute is not there or the kernel does not take the text. */
    bool write(const std::string& attribute, const std::string& text) const;

    std::vector<std::string> entries() const;

  private:
    base::unique_fd fd_;
};

}  // namespace android::kus
