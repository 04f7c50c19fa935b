// SPDX-License-Identifier: Apache-2.0
#include "kus_test.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/strings.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <tuple>

#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {

namespace {

std::mutex logLock;
// Never destroyed: an observer and a reset outlive the tests.
auto& logLines = *new Texts;

void captureLog(base::LogId, base::LogSeverity severity, const char*, const char*, unsigned int,
                const char* text) {
    const std::string line = std::string(1, "VDIWEFF"[severity]) + " " + text;
    const std::lock_guard lock(logLock);
    logLines.push_back(line);
    // A death test reads what a dying process says there.
    if (severity >= base::FATAL_WITHOUT_ABORT) fprintf(stderr, "%s\n", line.c_str());
}

void emptyDirectory(const fs::path& path) {
    std::error_code missing;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, missing)) {
        fs::remove_all(entry.path());
    }
}

}  // namespace

KusTest::KusTest() {
    base::SetLogger(captureLog);
    for (const char* path : {"/data", "/sys", "/dev/__properties__"}) emptyDirectory(path);
    fs::create_directories(fs::path(configFilePath).parent_path());

    auto state = std::tie(configMode, errorMessage, xml_parse_status, isUserDebugBuild,
                          rulesAreLeftByCrash, UsbDevice::verbose_trace);
    static const std::tuple<std::string, std::string, bool, bool, bool, bool> initialState = state;
    state = initialState;
    clearRules();
    Util::readRules(configFilePath);
    UsbDevice::deviceid_map.clear();
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    mUsbDeviceInfoList.clear();
    mInputDeviceInfoList.clear();
    takeLog();
}

Texts takeLog() {
    const std::lock_guard lock(logLock);
    return std::exchange(logLines, {});
}

Texts takeLogUntil(const std::string& text, milliseconds timeout) {
    Texts log;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        for (const std::string& line : takeLog()) log.push_back(line);
        for (const std::string& line : log) {
            if (line.find(text) != std::string::npos) return log;
        }
        sleep_for(milliseconds(1));
    }
    ADD_FAILURE() << "no log line has " << text;
    return log;
}

std::string takeLogText() { return base::Join(takeLog(), '\n') + "\n"; }

int countOf(const std::string& start, const Texts& lines) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return base::StartsWith(line, start); });
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    ASSERT_TRUE(base::WriteStringToFile(content, path)) << path;
}

std::string readFile(const std::string& path) {
    std::string content;
    return base::ReadFileToString(path, &content) ? content : "(no file)";
}

std::string stderrOf(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

void loadRules(const std::string& xml) {
    writeFile(configFilePath, xml);
    Util::createMapFromConfig(configFilePath);
}

void setVendors(const Vendors& vendors) {
    vidPidMap.clear();
    lastWholeVendor.reset();
    for (const auto& [vid, pid] : vendors) addVidPid(vid, pid);
}

}  // namespace android::kus
