// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/strings.h>
#include <cutils/properties.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <string>

using android::base::ReadFileToString;
using android::base::StartsWith;
using android::base::WriteStringToFd;

namespace {

// One file a property, so that every process sees the same values. Never destroyed: a thread that
// nobody joins may set one at the exit.
const std::string& kDirectory = *new std::string("/dev/__properties__/");

// A legal name has no leading dot, so it is never "." or ".." nor one of the temporary files.
bool isLegalName(const std::string& name) {
    if (name.empty() || name.front() == '.' || name.back() == '.') return false;
    if (name.find("..") != std::string::npos) return false;
    return std::all_of(name.begin(), name.end(),
                       [](unsigned char c) { return isalnum(c) || strchr(".-@:_", c); });
}

bool isReadOnly(const std::string& name) { return StartsWith(name, "ro."); }

}  // namespace

int property_get(const char* key, char* value, const char* default_value) {
    std::string text;
    if (!isLegalName(key) || !ReadFileToString(kDirectory + key, &text) || text.empty()) {
        text = default_value ? default_value : "";
    }
    // Only read-only properties can be longer; they are cut, as the header promises.
    text.resize(std::min<size_t>(text.size(), PROPERTY_VALUE_MAX - 1));
    strcpy(value, text.c_str());
    return text.size();
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    char text[PROPERTY_VALUE_MAX];
    if (!key || property_get(key, text, "") == 0) return default_value;

    const int saved_errno = errno;
    errno = 0;
    char* end;
    const intmax_t number = strtoimax(text, &end, 0);
    const bool converted = errno == 0 && end != text && number >= INT32_MIN && number <= INT32_MAX;
    errno = saved_errno;
    return converted ? number : default_value;
}

int property_set(const char* key, const char* value) {
    if (!key) return -EINVAL;
    const std::string name = key;
    const std::string text = value ? value : "";
    if (!isLegalName(name)) return -EINVAL;
    if (text.size() >= PROPERTY_VALUE_MAX && !isReadOnly(name)) return -EINVAL;

    mkdir(kDirectory.c_str(), 0755);
    std::string temporary = kDirectory + ".new.XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) return -errno;

    // Readers see the old value or the new one. link() refuses an existing name and rename()
    // replaces it: that is the difference between a read-only property and any other.
    int result = 0;
    const std::string path = kDirectory + name;
    if (fchmod(fd, 0644) != 0 || !WriteStringToFd(text, fd) ||
        (isReadOnly(name) ? link(temporary.c_str(), path.c_str())
                          : rename(temporary.c_str(), path.c_str())) != 0) {
        result = -errno;
    }
    close(fd);
    unlink(temporary.c_str());
    return result;
}
