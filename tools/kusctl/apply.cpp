// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "kusctl.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using namespace std::chrono_literals;
using base::unique_fd;
using std::chrono::steady_clock;

constexpr char kHelp[] = R"(usage: kusctl apply [--dry-run] [--force] FILE

Puts a rules file in force on this device, as far as it can without harm. In this order, it
1. lints FILE, and ends where the daemon would not take it;
2. tells which of the devices that are recorded now, input devices too, would be decided on
   otherwise, and ends where the last keyboard, or the last mouse or other pointer, that is attached
   and allowed would be refused;
3. replaces /data/system/usbdeviceconfig/usb_device_config.xml, and waits for what the daemon makes
   of it;
4. waits until the attached devices have been enumerated again, and tells what has changed in fact.

  --dry-run  ends after step 2
  --force    refuses the last keyboard or pointer all the same

Whenever it is interrupted, be it by a power cut, the file is the old one or the new one, whole: the
new one is written beside it and renamed. Before that nothing has changed; after that the new rules
come into force whether or not this command is still there to tell. One apply at a time can run.

Exit status: 0 the rules are in force (--dry-run: nothing speaks against them), 1 refused or failed,
the old rules are in place, 2 wrong use, 3 the rules were written, but the daemon undid them, or
they were rewritten by somebody else, or there was no answer within 30 seconds.
)";

constexpr int kUnconfirmed = 3;

constexpr char kRulesName[] = "usb_device_config.xml";
constexpr char kBackupName[] = "usb_device_config_backup.xml";

constexpr auto kDaemonsPatience = 30s;
constexpr auto kDevicesPatience = 20s;
// How long nothing comes or goes when the enumeration is over.
constexpr auto kQuietTime = 2s;
constexpr auto kPollInterval = 100ms;

struct Arguments {
    std::string path;
    bool dryRun = false;
    bool force = false;
};

Arguments parseArguments(int argc, char** argv) {
    Arguments arguments;
    parseOptions(argc, argv, {{"dry-run", &arguments.dryRun}, {"force", &arguments.force}});
    if (optind == argc) wrongUse("no rules file given");
    arguments.path = argv[optind++];
    expectNoArguments(argc, argv);
    return arguments;
}

std::string describe(const DeviceInfo& device) {
    return printable(device.deviceName) + " (" + kindName(device.deviceType) + " " +
           std::to_string(device.deviceId) + ", " + std::to_string(device.vendorId) + ":" +
           std::to_string(device.productId) + ")";
}

void print(const std::string& line) {
    puts(line.c_str());
    fflush(stdout);
}

/** A recorded device, and what the new rules say of it. */
struct Prospect {
    DeviceInfo device;
    bool allowed;
    std::string reason;

    bool wasAllowed() const { return device.status != 0; }
};

std::vector<Prospect> prospectsOf(const std::vector<DeviceInfo>& devices, Rules* rules) {
    std::vector<Prospect> prospects;
    for (const DeviceInfo& device : devices) {
        const Answer answer = rules->decide(factsOf(device));
        prospects.push_back({device, answer.allowed, answer.reason});
    }
    return prospects;
}

void printProspects(const std::vector<Prospect>& prospects) {
    int changes = 0;
    for (const Prospect& prospect : prospects) {
        if (prospect.allowed == prospect.wasAllowed()) continue;
        ++changes;
        print("would be " + verdictText(prospect.allowed) + ": " + describe(prospect.device) +
              ": " + prospect.reason);
    }
    print(std::to_string(changes) + " of " + std::to_string(prospects.size()) +
          " recorded devices would be decided on otherwise");
}

/** What holds for devices, too, that are not there: a vendor's keyboards are easily forgotten. */
void printVendors(Rules* rules, const std::string& path) {
    std::string text;
    if (!readRulesFile(configFilePath, &text).empty()) return;
    if (judgeText(text).outcome != Verdict::Outcome::kAccepted) return;
    Rules before;
    before.parse(text);
    for (const Change& change : changesBetween(&before, rules)) {
        const auto& [device, old, now] = change;
        const bool wholeVendor =
            device.vendorId != kUnknownId && device.productId == kUnknownId && !now.lines.empty();
        if (!wholeVendor) continue;
        print("would be " + verdictText(now.allowed) + ": any device of vendor " +
              std::to_string(device.vendorId) + ", keyboards and mice too (" + printable(path) +
              ":" + std::to_string(now.lines[0]) + ")");
    }
}

/** The allowed device that would be the last of those with one of these sources; else null. */
const Prospect* lastOneLost(const std::vector<Prospect>& prospects, int32_t sources) {
    const Prospect* lost = nullptr;
    for (const Prospect& prospect : prospects) {
        const DeviceInfo& device = prospect.device;
        if (device.deviceType == 0 || (device.deviceClass & sources) == 0) continue;
        if (prospect.allowed) return nullptr;
        if (prospect.wasAllowed()) lost = &prospect;
    }
    return lost;
}

/** False where they would leave nobody the means to undo them by hand. */
bool leaveInputDevices(const std::vector<Prospect>& prospects) {
    const std::pair<const char*, int32_t> kinds[] = {{"keyboard", keyboardSources()},
                                                     {"pointer", pointerSources()}};
    bool left = true;
    for (const auto& [kind, sources] : kinds) {
        const Prospect* lost = lastOneLost(prospects, sources);
        if (lost == nullptr) continue;
        left = false;
        note(std::string("these rules refuse the last allowed ") + kind +
             " that is attached: " + describe(lost->device));
    }
    return left;
}

/** What the daemon makes of new rules. To be there before they are. */
class VerdictWatch {
  public:
    VerdictWatch() : inotify_(inotify_init1(IN_CLOEXEC)) {
        if (inotify_add_watch(inotify_.get(), configDirectory, IN_CLOSE_WRITE) < 0) {
            fail(std::string("cannot watch ") + configDirectory + ": " + strerror(errno));
        }
    }

    enum class Outcome { kAccepted, kUndone, kNone };

    /**
     * The status alone is no verdict on this text: it may be about the one before. But what the
     * daemon accepts it copies to the backup, and what it refuses it replaces.
     */
    Outcome await(const std::string& text) {
        const auto deadline = steady_clock::now() + kDaemonsPatience;
        for (bool backedUp = false; steady_clock::now() < deadline;) {
            pollfd events = {inotify_.get(), POLLIN, 0};
            if (poll(&events, 1, 1000) > 0) backedUp |= namesBackup();
            if (backedUp && contentOf(kBackupName) == byLines(text)) return Outcome::kAccepted;
            if (byLines(contentOf(kRulesName)) != byLines(text)) return Outcome::kUndone;
        }
        return Outcome::kNone;
    }

  private:
    /** Whether one of the events that are there is the backup's. */
    bool namesBackup() {
        alignas(inotify_event) char buffer[4096];
        const ssize_t length = read(inotify_.get(), buffer, sizeof(buffer));
        bool found = false;
        for (ssize_t at = 0; at < length;) {
            const auto& event = *reinterpret_cast<const inotify_event*>(buffer + at);
            found |= event.len > 0 && strcmp(event.name, kBackupName) == 0;
            at += sizeof(inotify_event) + event.len;
        }
        return found;
    }

    static std::string contentOf(const char* name) {
        std::string content;
        base::ReadFileToString(std::string(configDirectory) + "/" + name, &content);
        return content;
    }

    /** As the daemon copies it. */
    static std::string byLines(std::string text) {
        if (!text.empty() && text.back() != '\n') text += '\n';
        return text;
    }

    const unique_fd inotify_;
};

/** Keeps any other 'kusctl apply' out for as long as the descriptor is open. */
unique_fd lockDirectory() {
    unique_fd directory(open(configDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.ok()) {
        fail(std::string("cannot open ") + configDirectory + ": " + strerror(errno));
    }
    if (flock(directory.get(), LOCK_EX | LOCK_NB) != 0) fail("another 'kusctl apply' is at work");
    return directory;
}

void replaceRules(const unique_fd& directory, const std::string& text) {
    struct stat old;
    if (lstat(configFilePath, &old) == 0 && !S_ISREG(old.st_mode)) {
        fail(std::string(configFilePath) + " is no regular file: put one there");
    }
    const std::string problem = replaceFile(configFilePath, text);
    if (!problem.empty()) {
        fail("cannot replace the rules file: " + problem + ". The rules are as they were");
    }
    fsync(directory.get());
}

bool isSameDevice(const DeviceInfo& a, const DeviceInfo& b) {
    return a.deviceType == b.deviceType && a.vendorId == b.vendorId && a.productId == b.productId &&
           a.deviceName == b.deviceName;
}

/** Takes the record of the device out of these; its id may be another one. */
std::optional<DeviceInfo> takeRecord(const DeviceInfo& device, std::vector<DeviceInfo>* devices) {
    const auto found = std::find_if(devices->begin(), devices->end(),
                                    [&](const auto& other) { return isSameDevice(device, other); });
    if (found == devices->end()) return {};
    DeviceInfo record = std::move(*found);
    devices->erase(found);
    return record;
}

std::vector<int32_t> idsOf(const std::vector<DeviceInfo>& devices) {
    std::vector<int32_t> ids;
    for (const DeviceInfo& device : devices) ids.push_back(device.deviceId);
    return ids;
}

bool areAllThere(const std::vector<Prospect>& prospects, std::vector<DeviceInfo> devices) {
    return std::all_of(prospects.begin(), prospects.end(), [&](const Prospect& prospect) {
        return takeRecord(prospect.device, &devices).has_value();
    });
}

/** The records when nothing has come or gone for a while, and everything is there again. */
std::vector<DeviceInfo> awaitDevices(const std::vector<Prospect>& prospects) {
    std::vector<DeviceInfo> devices;
    const auto start = steady_clock::now();
    for (auto quietSince = start; steady_clock::now() < start + kDevicesPatience;) {
        std::this_thread::sleep_for(kPollInterval);
        std::vector<DeviceInfo> present;
        const sp<IKUsbService> service = findService();
        if (service == nullptr || !service->getDeviceList(&present).isOk()) present.clear();
        if (idsOf(present) != idsOf(devices)) quietSince = steady_clock::now();
        devices = std::move(present);
        const bool quiet = steady_clock::now() >= quietSince + kQuietTime;
        if (quiet && areAllThere(prospects, devices)) break;
    }
    return devices;
}

void printChanges(const std::vector<Prospect>& prospects, std::vector<DeviceInfo> devices) {
    int changes = 0;
    for (const Prospect& prospect : prospects) {
        const std::optional<DeviceInfo> now = takeRecord(prospect.device, &devices);
        if (!now) {
            print("not back: " + describe(prospect.device));
        } else if ((now->status != 0) != prospect.wasAllowed()) {
            ++changes;
            print("now " + verdictText(now->status != 0) + ": " + describe(*now) + ": " +
                  printable(now->reason));
        } else if (now->deviceId == prospect.device.deviceId &&
                   prospect.allowed != prospect.wasAllowed()) {
            print("still " + verdictText(now->status != 0) + ": " + describe(*now) +
                  ": was not enumerated again, plug it in anew");
        }
    }
    print("the rules are in force, " + std::to_string(changes) + " of " +
          std::to_string(prospects.size()) + " devices were decided on otherwise");
}

int reportUnconfirmed(VerdictWatch::Outcome outcome) {
    std::string status;
    base::ReadFileToString(statusFilePath, &status);
    note(outcome == VerdictWatch::Outcome::kUndone
             ? "the rules file was rewritten since, by the daemon or by somebody else: see there. "
               "The status is: " +
                   status
             : "the rules are written, but the daemon has not taken them within 30 seconds: see "
               "its log. The status is: " +
                   status);
    return kUnconfirmed;
}

int run(int argc, char** argv) {
    const Arguments arguments = parseArguments(argc, argv);
    std::string text;
    if (const std::string reason = readRulesFile(arguments.path, &text); !reason.empty()) {
        fail(arguments.path + ": " + reason);
    }
    const bool accepted = printLint(arguments.path, text);
    fflush(stdout);
    if (!accepted) fail("the daemon would not take these rules: not applied");
    Rules rules;
    rules.parse(text);

    const std::vector<Prospect> prospects = prospectsOf(recordedDevices(), &rules);
    printVendors(&rules, arguments.path);
    printProspects(prospects);
    if (!leaveInputDevices(prospects) && !arguments.force) {
        fail("not applied: --force applies them all the same");
    }
    if (arguments.dryRun) return kYes;

    const unique_fd lock = lockDirectory();
    VerdictWatch watch;
    replaceRules(lock, text);
    const VerdictWatch::Outcome outcome = watch.await(text);
    if (outcome != VerdictWatch::Outcome::kAccepted) return reportUnconfirmed(outcome);
    printChanges(prospects, awaitDevices(prospects));
    return kYes;
}

}  // namespace

const Command kApplyCommand = {"apply", "put a rules file in force, with care", kHelp, run};

}  // namespace android::kus
