// SPDX-License-Identifier: Apache-2.0
#include "kus_test.h"

#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <sstream>
#include <tuple>

#include "ku_service/KUsbService.h"

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

constexpr char kNumbers[] =
    "bAlternateSetting bConfigurationValue bDeviceClass bDeviceProtocol bDeviceSubClass "
    "bInterfaceClass bInterfaceNumber bInterfaceProtocol bInterfaceSubClass bMaxPacketSize0 "
    "bNumConfigurations bNumEndpoints bNumInterfaces bcdDevice bmAttributes configuration devnum "
    "idProduct idVendor maxchild rx_lanes tx_lanes";

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

void addEntry(const std::string& name, const std::string& attributes, const std::string& number) {
    const std::string directory = "/sys/devices/controller/" + name + "/";
    for (const std::string& attribute : base::Split(kNumbers, " ")) {
        writeFile(directory + attribute, number + "\n");
    }
    std::istringstream list(attributes);
    for (std::string item; std::getline(list >> std::ws, item, ',');) {
        const size_t equals = item.find('=');
        writeFile(directory + item.substr(0, equals), item.substr(equals + 1) + "\n");
    }
    fs::create_directories(kUsbDevicesPath);
    fs::create_directory_symlink(directory, fs::path(kUsbDevicesPath) / name);
}

void addInterface(const std::string& name, int interfaceClass, const Texts& directories) {
    addEntry(name, base::StringPrintf("authorized=1, bInterfaceClass=%02x", interfaceClass));
    for (const std::string& directory : directories) {
        fs::create_directories(sysfsPath(name, directory));
    }
}

void addDevice(const std::string& name, int devnum, int vendor, int product) {
    addEntry(name, base::StringPrintf("authorized=1, devnum=%d, idVendor=%04x, idProduct=%04x",
                                      devnum, vendor, product));
}

std::string scan(const std::string& names) {
    return stderrOf([&] {
        for (const std::string& name : base::Split(names, " ")) {
            UsbDevice::inspect_bus_entry(name.c_str());
        }
        UsbDevice::connect_devices();
    });
}

std::string sysfsPath(const std::string& entry, const std::string& below) {
    return std::string(kUsbDevicesPath) + "/" + entry + "/" + below;
}

usbinterface_custom mapRecord(const char* name, int category, int vendor) {
    usbinterface_custom record = {};
    strcpy(record.name, name);
    record.category = category;
    record.idVendor = vendor;
    return record;
}

}  // namespace android::kus
