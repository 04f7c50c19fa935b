// SPDX-License-Identifier: Apache-2.0
#include "fuzz_world.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>

#include "private_world.h"

using android::base::LogSeverity;

extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
    enterPrivateWorld(*argv);
    // The fuzzer may close the target's standard error after this.
    static const int messages = dup(STDERR_FILENO);
    android::base::SetLogger([](auto, LogSeverity severity, auto, const char* file,
                                unsigned int line, const char* text) {
        if (severity < android::base::FATAL_WITHOUT_ABORT) return;
        dprintf(messages, "%s:%u: %s\n", file, line, text);
    });
    return 0;
}

// Beside the initialization, so that no target can be linked without it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    android::kus::runInput(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}

namespace android::kus {

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    CHECK(base::WriteStringToFile(content, path)) << path;
}

std::string outputOf(const std::function<void(int file)>& action) {
    static const int file = memfd_create("output", MFD_CLOEXEC);
    CHECK(ftruncate(file, 0) == 0 && lseek(file, 0, SEEK_SET) == 0);
    action(file);
    std::string output;
    CHECK(lseek(file, 0, SEEK_SET) == 0 && base::ReadFdToString(file, &output));
    return output;
}

}  // namespace android::kus
