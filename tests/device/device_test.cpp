// SPDX-License-Identifier: Apache-2.0
#include "device_test.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <binder/IServiceManager.h>
#include <dirent.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <thread>

#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::Trim;
namespace fs = std::filesystem;

constexpr char kUsbDevices[] = "/sys/bus/usb/devices/";
const std::string kSoc = "/sys/devices/platform/soc/";

constexpr int kMouse = 0x2002;
constexpr int kAnyVendor = 1;

/** Longer than the time between two writes of a reset. */
constexpr auto kQuietTime = 600ms;

DeviceInfo findRecorded(const std::function<bool(const DeviceInfo&)>& wanted) {
    std::vector<DeviceInfo> devices;
    service()->getDeviceList(&devices);
    for (const DeviceInfo& device : devices) {
        if (wanted(device)) return device;
    }
    return {};
}

/** The answer about an input device that is not there; none from a daemon that ends. */
std::optional<bool> isInputAllowed(int sources, int vendor) {
    DeviceInfo device;
    device.deviceName = "asked about";
    device.deviceId = 99100;
    device.deviceClass = sources;
    device.deviceType = 1;
    device.vendorId = vendor;
    bool allowed = false;
    const bool answered = service()->isDeviceAllowed(device, &allowed).isOk();
    service()->updateDeviceList(device, 0);
    return answered ? std::optional(allowed) : std::nullopt;
}

}  // namespace

std::string shell(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c; (c = getc(pipe)) != EOF;) output += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return Trim(output);
}

bool fullRun() { return getenv("KUS_FULL_RUN") != nullptr; }

std::string contentOf(const std::string& path) {
    std::string content;
    base::ReadFileToString(path, &content);
    return Trim(content);
}

void writeFile(const std::string& path, const std::string& content) {
    ASSERT_TRUE(base::WriteStringToFile(content, path)) << path;
}

std::string rulesText(const std::string& mode, const std::string& rules) {
    return "<usbconfig mode=\"" + mode + "\">" + rules + "</usbconfig>\n";
}

int parses() {
    return stoi(shell("grep -c 'config file call parsing' /data/log/kusd.log || true"));
}

sp<IKUsbService> service() {
    static thread_local sp<IKUsbService> current;
    EXPECT_TRUE(eventually([] {
        if (current != nullptr && IInterface::asBinder(current)->pingBinder() == OK) return true;
        const auto found = defaultServiceManager()->checkService(String16("kusbservice"));
        if (found != nullptr) current = interface_cast<IKUsbService>(found);
        return false;
    })) << "no service";
    return current;
}

DeviceInfo recorded(int id) {
    return findRecorded([id](const DeviceInfo& device) { return device.deviceId == id; });
}

DeviceInfo recorded(const std::string& name) {
    return findRecorded([&](const DeviceInfo& device) { return device.deviceName == name; });
}

bool isAllowed(const std::vector<int>& interfaceClasses) {
    DeviceInfo device;
    device.deviceName = "asked about";
    device.deviceId = 99000;
    device.interfaceClassList = interfaceClasses;
    bool allowed = false;
    EXPECT_TRUE(service()->isDeviceAllowed(device, &allowed).isOk());
    service()->updateDeviceList(device, 0);
    return allowed;
}

Rules Rules::next() {
    static int vendor = 10000;
    static bool whitelist = false;
    Rules rules = {"", ++vendor, whitelist = !whitelist};
    rules.text = rulesText(whitelist ? "whitelist" : "blacklist",
                           "<vid vendorid=\"" + std::to_string(vendor) + "\"/>");
    return rules;
}

Rules Rules::rewrite() {
    const Rules rules = next();
    writeFile(configFilePath, rules.text);
    EXPECT_TRUE(eventually([&] { return rules.areAccepted(); })) << rules.text;
    return rules;
}

bool Rules::areInForce() const {
    return isInputAllowed(kMouse, vendor) == whitelist &&
           isInputAllowed(kMouse, kAnyVendor) == !whitelist;
}

bool Rules::areAccepted() const {
    return contentOf(statusFilePath) == "SUCCESS" && contentOf(configFilePath) == Trim(text) &&
           contentOf(backupFilePath) == Trim(text) && areInForce();
}

// By its program: pool threads have names of their own, and the main thread is one of them.
pid_t daemonPid() {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        std::error_code none;
        const fs::path program = fs::read_symlink(entry.path() / "exe", none);
        if (program.filename() == "kusd") return atoi(entry.path().filename().c_str());
    }
    return 0;
}

void awaitDaemon() {
    EXPECT_TRUE(eventually([] {
        std::error_code gone;
        const std::string fds = "/proc/" + std::to_string(daemonPid()) + "/fdinfo";
        for (fs::directory_iterator fd(fds, gone), end; !gone && fd != end; fd.increment(gone)) {
            if (contentOf(fd->path()).find("inotify") != std::string::npos) return true;
        }
        return false;
    })) << "no daemon watches the rules file";
    service();
}

Plugged::Plugged(const std::string& name, const std::string& options)
    : name_(name), entry_(shell("plug " + name + " " + options)) {}

Plugged::~Plugged() { shell("unplug " + name_); }

void Plugged::replug() { entry_ = shell("replug " + name_); }

int Plugged::id() const {
    const std::string device = kUsbDevices + entry_;
    const std::string devnum = contentOf(device + "/devnum");
    return devnum.empty() ? 0 : atoi(contentOf(device + "/busnum").c_str()) * 1000 + stoi(devnum);
}

DeviceInfo Plugged::decision() const {
    DeviceInfo device;
    EXPECT_TRUE(eventually([&] {
        const int present = id();
        if (present != 0) device = recorded(present);
        return present != 0 && device.deviceId == present;
    })) << "no decision on "
        << name_;
    return device;
}

std::string Plugged::interfaceState(int number) const {
    const std::string interface = kUsbDevices + entry_ + ":1." + std::to_string(number);
    std::error_code unbound;
    const std::string driver = fs::read_symlink(interface + "/driver", unbound).filename();
    return driver + " " + contentOf(interface + "/authorized");
}

std::vector<std::string> sticks() {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/block")) {
        const std::string name = entry.path().filename();
        if (base::StartsWith(name, "sd")) names.push_back(name);
    }
    return names;
}

RoleWatch::RoleWatch() : fd_(inotify_init1(IN_NONBLOCK)) {
    hsusb_ = inotify_add_watch(fd_, (kSoc + "c200000.hsusb/mode").c_str(), IN_MODIFY);
    inotify_add_watch(fd_, (kSoc + "a800000.ssusb/mode").c_str(), IN_MODIFY);
    thread_ = std::thread([this] { record(); });
}

RoleWatch::~RoleWatch() {
    done_ = true;
    thread_.join();
    close(fd_);
}

// Before the writer goes on, even on a busy machine: the next write comes 100 ms later.
void RoleWatch::record() {
    sched_param priority = {};
    priority.sched_priority = 1;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority);
    while (!done_) {
        pollfd events = {fd_, POLLIN, 0};
        poll(&events, 1, 100);
        inotify_event event;
        while (read(fd_, &event, sizeof(event)) == sizeof(event)) {
            const std::lock_guard lock(lock_);
            writes_.push_back(event.wd == hsusb_
                                  ? "hsusb " + contentOf(kSoc + "c200000.hsusb/mode")
                                  : "ssusb " + contentOf(kSoc + "a800000.ssusb/mode"));
        }
    }
}

std::vector<std::string> RoleWatch::writes(size_t expected) {
    const auto written = [this] {
        const std::lock_guard lock(lock_);
        return writes_;
    };
    eventually([&] { return written().size() >= expected; });
    size_t settled;
    do {
        settled = written().size();
        std::this_thread::sleep_for(kQuietTime);
    } while (written().size() != settled);
    const std::lock_guard lock(lock_);
    return std::exchange(writes_, {});
}

std::vector<std::string> oneToggle() {
    return {"hsusb none", "hsusb host", "ssusb none", "ssusb host"};
}

void DeviceTest::SetUp() {
    awaitDaemon();
    setRules("default", "");
}

void DeviceTest::setRules(const std::string& mode, const std::string& rules) {
    RoleWatch roles;
    writeFile(configFilePath, rulesText(mode, rules));
    ASSERT_EQ(roles.writes(oneToggle().size()), oneToggle());
    ASSERT_EQ(contentOf(statusFilePath), "SUCCESS");
}

}  // namespace android::kus
