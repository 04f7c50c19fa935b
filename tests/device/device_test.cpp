// SPDX-License-Identifier: Apache-2.0
#include "device_test.h"

#include <android-base/file.h>
#include <android-base/strings.h>
#include <binder/IServiceManager.h>

#include <filesystem>
#include <thread>

#include "util/Util.h"

namespace android::kus {
namespace {

using android::base::Trim;
namespace fs = std::filesystem;

constexpr char kUsbDevices[] = "/sys/bus/usb/devices/";
constexpr char kLog[] = "/data/log/kusd.log";
constexpr char kParse[] = "config file call parsing";

/** The machine may follow a reset of the controllers that much later. */
constexpr auto kRoleSwitchTime = 500ms;

DeviceInfo findRecorded(const std::function<bool(const DeviceInfo&)>& wanted) {
    std::vector<DeviceInfo> devices;
    service()->getDeviceList(&devices);
    for (const DeviceInfo& device : devices) {
        if (wanted(device)) return device;
    }
    return {};
}

}  // namespace

std::string shell(const std::string& command) {
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    for (int c; (c = getc(pipe)) != EOF;) output += static_cast<char>(c);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return Trim(output);
}

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

// The event of the backup comes in the log after the reset.
bool isSettled() {
    const std::string last = shell(std::string("grep -e '") + kParse +
                                   "' -e 'CLOSE_WRITE.*_backup' " + kLog + " | tail -n 1");
    return base::EndsWith(last, backupFilePath);
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

bool isAllowed(const std::vector<int>& interfaceClasses, int vendor) {
    DeviceInfo device;
    device.deviceName = "asked about";
    device.deviceId = 99000;
    device.interfaceClassList = interfaceClasses;
    device.vendorId = vendor;
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

bool Rules::areAccepted() const {
    return contentOf(statusFilePath) == "SUCCESS" && contentOf(configFilePath) == Trim(text) &&
           contentOf(backupFilePath) == Trim(text) && isAllowed({8}, vendor) == whitelist &&
           isAllowed({8}) == !whitelist;
}

pid_t daemonPid() { return atoi(shell("pidof kusd || true").c_str()); }

void awaitDaemon() {
    EXPECT_TRUE(eventually([] {
        return shell("grep -s inotify /proc/$(pidof kusd)/fdinfo/* || true") != "";
    })) << "no daemon watches the rules file";
    service();
}

int idOf(const std::string& entry) {
    const std::string device = kUsbDevices + entry;
    const std::string devnum = contentOf(device + "/devnum");
    return devnum.empty() ? 0 : atoi(contentOf(device + "/busnum").c_str()) * 1000 + stoi(devnum);
}

std::vector<std::string> statesOf(const std::string& entry) {
    std::vector<std::string> states;
    for (int number = 0;; ++number) {
        const fs::path interface = kUsbDevices + entry + ":1." + std::to_string(number);
        if (!fs::exists(interface)) return states;
        std::error_code unbound;
        const fs::path driver = fs::read_symlink(interface / "driver", unbound);
        states.push_back(driver.filename().string() + " " + contentOf(interface / "authorized"));
    }
}

Plugged::Plugged(const std::string& name, const std::string& options)
    : name_(name), entry_(shell("plug " + name + " " + options)) {}

Plugged::~Plugged() { shell("unplug " + name_); }

void Plugged::replug() { entry_ = shell("replug " + name_); }

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

void Plugged::expectState(const std::string& state) const {
    const auto matcher = AllOf(Not(IsEmpty()), Each(state));
    eventually([&] { return testing::Value(statesOf(entry_), matcher); });
    EXPECT_THAT(statesOf(entry_), matcher) << name_;
}

int sticks() { return stoi(shell("ls /sys/block | grep -c ^sd || true")); }

void DeviceTest::SetUp() {
    awaitDaemon();
    setRules("default", "");
}

void DeviceTest::setRules(const std::string& mode, const std::string& rules) {
    const auto parses = [] {
        return stoi(shell(std::string("grep -c '") + kParse + "' " + kLog + " || true"));
    };
    const int before = parses();
    writeFile(configFilePath, rulesText(mode, rules));
    ASSERT_TRUE(eventually([&] { return parses() > before && isSettled(); }));
    ASSERT_EQ(contentOf(statusFilePath), "SUCCESS");
    std::this_thread::sleep_for(kRoleSwitchTime);
}

}  // namespace android::kus
