// SPDX-License-Identifier: Apache-2.0
#include "kusctl_run.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;
using android::base::ReadFileToString;
using android::base::WriteStringToFile;

namespace {

std::string contentOf(const std::string& path) {
    std::string content;
    EXPECT_TRUE(ReadFileToString(path, &content, /*follow_symlinks=*/true)) << path;
    return content;
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Result& result) {
    return stream << "status " << result.status << "\nout: " << result.out << "err: " << result.err;
}

void enterDevicesFolder(const Files& files) {
    const fs::path folder = "/data/system/usbdeviceconfig";
    fs::remove_all(folder);
    fs::create_directories(folder);
    fs::current_path(folder);
    for (const auto& [name, content] : files) ASSERT_TRUE(WriteStringToFile(content, name));
}

Files filesHere() {
    Files files;
    for (const auto& entry : fs::directory_iterator(".")) {
        files[entry.path().filename()] = contentOf(entry.path());
    }
    return files;
}

Result runKusctl(const std::string& arguments) {
    const TemporaryFile out, err;
    const std::string command = KUSCTL_PATH " " + arguments + " >" + out.path + " 2>" + err.path;
    const int status = system(("exec " + command).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), contentOf(out.path),
            contentOf(err.path)};
}

Result runKusctl(const Files& files, const std::string& arguments) {
    enterDevicesFolder(files);
    return runKusctl(arguments);
}

std::string whitelist(const std::string& rules) {
    return "<usbconfig mode='whitelist'>\n" + rules + "\n</usbconfig>\n";
}

Json::Value parseJson(const std::string& text) {
    Json::Value value;
    std::istringstream(text) >> value;
    return value;
}
