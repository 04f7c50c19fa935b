// SPDX-License-Identifier: Apache-2.0
#include "local_daemon.h"

#include <android-base/file.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;
using std::chrono::steady_clock;

namespace android::kus {
namespace {

constexpr char kLog[] = "/data/kusd.log";
constexpr char kMark[] = "/data/system/usbdeviceconfig/mark";
constexpr std::chrono::seconds kPatience(8);

std::string rulesText(const char* mode, const char* elements, int serial, int padding) {
    std::string text = std::string("<usbconfig mode=\"") + mode + "\">\n";
    text += "<!-- " + std::to_string(serial) + " -->\n";
    for (int i = 0; i < padding; ++i) text += "<!-- " + std::string(90, 'x') + " -->\n";
    return text + elements + "\n</usbconfig>";
}

}  // namespace

Rules goodRules(int serial, int padding) {
    return {rulesText("whitelist", "<class>USB_CLASS_AUDIO</class>", serial, padding), "100"};
}

Rules otherGoodRules(int serial, int padding) {
    return {rulesText("blacklist", "<class>USB_CLASS_VIDEO</class>", serial, padding), "110"};
}

Rules unknownElement(int serial) {
    return {rulesText("whitelist", "<class>USB_CLASS_MASS_STORAGE</class><foo/>", serial, 100), ""};
}

Rules numberTooLarge(int serial) {
    return {rulesText("whitelist", "<vid vendorid=\"99999999999\"/>", serial, 100), ""};
}

std::string contentOf(const std::string& path) {
    std::string content;
    return base::ReadFileToString(path, &content) ? content : "(no file)";
}

std::string gist(const std::string& content) {
    return std::to_string(content.size()) + " bytes: " + content.substr(0, 50);
}

void writeFile(const std::string& path, const std::string& text) {
    ASSERT_TRUE(base::WriteStringToFile(text, path)) << path;
}

bool fullRun() { return getenv("KUS_FULL_RUN") != nullptr; }

LocalDaemonTest::LocalDaemonTest() {
    fs::create_directories("/sys/bus/usb/devices");
    fs::create_directories(configDirectory);
    for (const auto& entry : fs::directory_iterator(configDirectory)) fs::remove(entry);
}

void LocalDaemonTest::start(const std::vector<std::string>& wrapper, const char* argument) {
    kill();
    std::vector<std::string> command = {"sh", "-c", std::string("exec \"$@\" 2>") + kLog, "sh"};
    command.insert(command.end(), wrapper.begin(), wrapper.end());
    command.push_back(LOCAL_KUSD_PATH);
    if (argument) command.push_back(argument);
    writeFile(kLog, "");
    settled_ = 0;
    daemon_ = std::make_unique<Process>(command);
}

bool LocalDaemonTest::awaitStart() {
    return awaitInLog("registered successfully file observer", 0) != std::string::npos;
}

void LocalDaemonTest::bringUp() {
    for (int i = 0; i < 3; ++i) {
        start();
        if (awaitStart()) return;
    }
    ADD_FAILURE() << "the daemon does not start: it ended with " << exitStatus();
}

int LocalDaemonTest::exitStatus() {
    if (!eventually([this] { return ended(); }, kPatience)) ADD_FAILURE() << "it does not end";
    kill();
    return exitStatus_;
}

void LocalDaemonTest::kill() {
    if (!daemon_) return;
    daemon_->kill(SIGKILL);
    exitStatus_ = daemon_->exitStatus();
    daemon_.reset();
}

size_t LocalDaemonTest::awaitInLog(const std::string& text, size_t from) {
    const auto deadline = steady_clock::now() + kPatience;
    while (true) {
        const bool last = ended() || steady_clock::now() > deadline;
        const size_t at = log(from).find(text);
        if (at != std::string::npos) return from + at + text.size();
        if (last) return std::string::npos;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// A mark is seen after all that was written before it; what the daemon wrote while it handled that
// comes before the next mark.
bool LocalDaemonTest::settle() {
    const auto deadline = steady_clock::now() + kPatience;
    while (steady_clock::now() < deadline) {
        writeFile(kMark, "");
        const size_t from = settled_;
        settled_ = awaitInLog(kMark, from);
        if (settled_ == std::string::npos) return false;
        const std::string seen = log(from).substr(0, settled_ - from);
        if (seen.find("call parsing") == std::string::npos) return true;
    }
    return false;
}

std::string LocalDaemonTest::log(size_t from) {
    std::ifstream file(kLog);
    file.seekg(from);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string LocalDaemonTest::decisions() {
    if (ended()) return "(no daemon)";
    daemon_->tell("1 8 14");
    return daemon_->line();
}

void LocalDaemonTest::settleOn(const Rules& rules) {
    writeRules(rules);
    if (ended()) bringUp();
    EXPECT_TRUE(settle());
    expectInForce(rules);
}

void LocalDaemonTest::expectInForce(const Rules& rules) {
    for (const char* path : {configFilePath, backupFilePath}) {
        const std::string content = contentOf(path);
        EXPECT_TRUE(path == configFilePath ? rules.isIn(content) : rules.copy() == content)
            << path << ": " << gist(content);
    }
    EXPECT_EQ(contentOf(statusFilePath), "SUCCESS");
    EXPECT_EQ(decisions(), rules.decisions);
}

int LocalDaemonTest::failures() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

}  // namespace android::kus
