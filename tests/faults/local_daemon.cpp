// SPDX-License-Identifier: Apache-2.0
#include "local_daemon.h"

#include <android-base/file.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;
using std::chrono::steady_clock;

namespace android::kus {
namespace {

constexpr char kLog[] = "/data/kusd.log";
constexpr char kMark[] = "/data/system/usbdeviceconfig/mark";

}  // namespace

Rules makeRules(int kind, int serial) {
    static const struct {
        const char *name, *mode, *elements, *decisions, *status;
    } kinds[] = {
        {"good", "whitelist", "<class>USB_CLASS_AUDIO</class>", "100", "SUCCESS"},
        {"other good", "blacklist", "<class>USB_CLASS_VIDEO</class>", "110", "SUCCESS"},
        {"unknown element", "whitelist", "<class>USB_CLASS_MASS_STORAGE</class><foo/>", "",
         "INVALID TAG:foo"},
        // The daemon that init starts then accepts what this one has restored.
        {"number too large", "whitelist", "<vid vendorid=\"99999999999\"/>", "", "SUCCESS"},
    };
    if (kind == kEmpty) return {"empty", "", "", "Error=XML_ERROR_EMPTY_DOCUMENT"};
    const auto& [name, mode, elements, decisions, status] = kinds[kind];
    std::string text = std::string("<usbconfig mode=\"") + mode + "\">\n";
    text += "<!-- " + std::to_string(serial) + " -->\n";
    // More than one read takes.
    text += "<!-- " + std::string(10000, 'x') + " -->\n";
    return {name, text + elements + "\n</usbconfig>", decisions, status};
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

LocalDaemonTest::LocalDaemonTest() {
    fs::create_directories("/sys/bus/usb/devices");
    fs::create_directories(configDirectory);
    for (const auto& entry : fs::directory_iterator(configDirectory)) fs::remove(entry);
}

void LocalDaemonTest::start(const Texts& wrapper, const Texts& command) {
    kill();
    Texts all = {"sh", "-c", std::string("exec \"$@\" 2>") + kLog, "sh"};
    all.insert(all.end(), wrapper.begin(), wrapper.end());
    all.insert(all.end(), command.begin(), command.end());
    writeFile(kLog, "");
    seen_ = 0;
    daemon_ = std::make_unique<Process>(all);
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

// A mark's event comes after those of all that was written before it. What the daemon wrote while
// it handled these comes before the next mark.
bool LocalDaemonTest::settle() {
    const auto deadline = steady_clock::now() + kPatience;
    while (steady_clock::now() < deadline) {
        writeFile(kMark, "");
        const size_t from = seen_;
        seen_ = awaitInLog(kMark, from);
        if (seen_ == std::string::npos) return false;
        const std::string handled = log(from).substr(0, seen_ - from);
        if (handled.find("call parsing") == std::string::npos) return true;
    }
    return false;
}

int LocalDaemonTest::exitStatus() {
    EXPECT_TRUE(ended(kPatience)) << "it does not end";
    kill();
    return exitStatus_;
}

void LocalDaemonTest::kill() {
    if (!daemon_) return;
    daemon_->kill(SIGKILL);
    exitStatus_ = daemon_->exitStatus();
    daemon_.reset();
}

std::string LocalDaemonTest::decisions() {
    if (ended()) return "(no daemon)";
    daemon_->tell("1 8 14");
    return daemon_->line();
}

std::string LocalDaemonTest::log(size_t from) {
    std::ifstream file(kLog);
    file.seekg(from);
    return {std::istreambuf_iterator<char>(file), {}};
}

void LocalDaemonTest::settleOn(const Rules& rules) {
    writeRules(rules);
    if (ended()) bringUp();
    EXPECT_TRUE(settle());
    expectInForce(rules);
}

void LocalDaemonTest::expectInForce(const Rules& rules) {
    const std::string found = contentOf(configFilePath);
    const std::string backup = contentOf(backupFilePath);
    EXPECT_TRUE(rules.isIn(found)) << "the rules file has " << gist(found);
    EXPECT_TRUE(rules.copy() == backup) << "the backup has " << gist(backup);
    EXPECT_EQ(contentOf(statusFilePath), "SUCCESS");
    EXPECT_EQ(decisions(), rules.decisions);
}

}  // namespace android::kus
