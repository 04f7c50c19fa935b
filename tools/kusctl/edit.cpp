// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>

#include "kusctl.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr char kHelp[] =
    R"(usage: kusctl allow|block [OPTION]... --vendor V [--product P]
       kusctl allow|block [OPTION]... --class C
       kusctl allow|block [OPTION]... --input SOURCE
       kusctl allow|block [OPTION]... ID

Edits a rules file so that it allows, or refuses, a product, a whole vendor, a USB class, a kind of
input device, or the vendor and product of a recorded device, by its id in 'kusctl list'. Where the
mode calls for it a rule is added, else those that say otherwise are taken away. The change is the
smallest one: comments and order stay. What changes is told as 'kusctl diff' tells it, and new
warnings as 'kusctl lint' does.

  --vendor V     vendor id: 1133 or 0x046d
  --product P    product id
  --class C      a USB class: USB_CLASS_PRINTER, printer or 7
  --input SOURCE a kind of input device: AINPUT_SOURCE_MOUSE, mouse or 0x2000
  --rules FILE   rules to edit (/data/system/usbdeviceconfig/usb_device_config.xml)
  --output FILE  writes the edited rules there, "-" for the standard output, and leaves the others
                 alone

Without --output the file is replaced; whenever that is interrupted it is the old one or the new one,
whole. The device's own file is edited by way of 'kusctl apply', which may refuse.

Exit status: 0 done, or the rules say so already; 1 failed, or the format has no way to say it, and
nothing is written; 2 wrong use; for the device's own file also that of 'kusctl apply'.
)";

struct Request {
    std::string rules = configFilePath;
    /** Empty for the rules file itself. */
    std::string output;
    Subject subject;
    std::optional<DeviceFacts> recorded;
};

int32_t onlyOne(const std::vector<int32_t>& codes) {
    if (codes.size() != 1) wrongUse("give one class at a time");
    return codes[0];
}

DeviceInfo findRecorded(const char* id) {
    const int32_t number = parseDeviceId(id);
    const std::vector<DeviceInfo> devices = recordedDevices();
    const auto found = std::find_if(devices.begin(), devices.end(), [&](const DeviceInfo& device) {
        return device.deviceId == number;
    });
    if (found == devices.end()) failAsUnrecorded(number);
    return *found;
}

bool isSameFile(const std::string& a, const std::string& b) {
    struct stat first, second;
    return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/** The file that is in force: by whatever path, and even where it is not there yet. */
bool isDevicesOwn(const std::string& path) {
    return isSameFile(path, configFilePath) ||
           (isSameFile(base::Dirname(path), configDirectory) &&
            base::Basename(path) == base::Basename(configFilePath));
}

Request parseArguments(int argc, char** argv) {
    Request request;
    Subject& subject = request.subject;
    int ways = 0;
    bool byInput = false;
    parseOptions(argc, argv,
                 {{"vendor",
                   [&](const char* id) {
                       ++ways;
                       subject.vendor = parseId("vendor", id);
                   }},
                  {"product", [&](const char* id) { subject.product = parseId("product", id); }},
                  {"class",
                   [&](const char* name) {
                       ++ways;
                       subject.classCode = onlyOne(parseUsbClasses(name));
                   }},
                  {"input",
                   [&](const char* name) {
                       ++ways;
                       byInput = true;
                       subject.classCode = onlyOne(parseInputSources(name));
                   }},
                  {"rules", &request.rules},
                  {"output", &request.output}});
    if (isSameFile(request.output, request.rules)) request.output.clear();
    const char* id = optind < argc ? argv[optind++] : nullptr;
    expectNoArguments(argc, argv);
    if (ways + (id != nullptr) != 1) wrongUse("give one of --vendor, --class, --input and ID");
    if (subject.product != kUnknownId && subject.vendor == kUnknownId) {
        wrongUse("--product goes with --vendor");
    }
    if (id != nullptr) {
        const DeviceInfo device = findRecorded(id);
        subject.vendor = device.vendorId;
        subject.product = device.productId;
        request.recorded = factsOf(device);
    }
    if (subject.classCode && Util::getClassName(*subject.classCode) == " ") {
        wrongUse("no rule can name a class that has no name: name devices by vendor and product");
    }
    if (byInput && inputSourceNames.count(*subject.classCode) == 0) {
        wrongUse("no rule can name an input source by the code of a USB class: give --class");
    }
    return request;
}

void printNewWarnings(const std::string& path, const std::string& before,
                      const std::string& after) {
    const std::vector<Warning> known = reviewRules(before);
    for (const Warning& warning : reviewRules(after)) {
        const bool isNew = std::none_of(known.begin(), known.end(), [&](const Warning& other) {
            return other.kind == warning.kind && other.message == warning.message;
        });
        if (!isNew || warning.isNote) continue;
        printf("%s:%d: warning: %s\n", printable(path).c_str(), warning.line,
               printable(withCure(warning)).c_str());
    }
}

/**
 * Of two edits at once the second waits for as long as the descriptor is open. Nothing is locked
 * where there is no such file, which whoever reads it tells.
 */
base::unique_fd lockFolderOf(const std::string& path) {
    std::string target;
    if (!base::Realpath(path, &target)) return {};
    const std::string folder = base::Dirname(target);
    base::unique_fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.ok() || flock(fd.get(), LOCK_EX) != 0) {
        fail("cannot lock " + folder + ": " + strerror(errno));
    }
    return fd;
}

/** The file that a link leads to is replaced, not the link. */
void replaceTarget(const std::string& path, const std::string& text) {
    std::string target;
    if (!base::Realpath(path, &target)) fail(path + ": " + strerror(errno));
    const std::string problem = replaceFile(target, text);
    if (!problem.empty()) fail(target + ": " + problem);
}

int apply(const std::string& text) {
    static const TemporaryFile file;  // gone at the exit from wherever apply ends the program
    if (!base::WriteStringToFd(text, file.fd)) {
        fail(std::string(file.path) + ": " + strerror(errno));
    }
    std::string name = kApplyCommand.name, path = file.path;
    char* argv[] = {name.data(), path.data(), nullptr};
    optind = 1;
    return runCommand(kApplyCommand, 2, argv);
}

int edit(int argc, char** argv, bool allow) {
    const Request request = parseArguments(argc, argv);
    const std::string& path = request.output.empty() ? request.rules : request.output;
    const bool byApply = isDevicesOwn(path);
    base::unique_fd lock;
    if (request.output.empty() && !byApply) lock = lockFolderOf(path);

    const std::string text = rulesText(request.rules);
    Rules before = loadRules(request.rules, text);
    const Edit edited = editRules(text, allow, request.subject);
    if (!edited.problem.empty()) fail(request.rules + ": " + edited.problem);
    Rules after = loadRules(request.rules, edited.text);
    const EditReview review = reviewEdit(&after, allow, request.subject, request.recorded);
    if (!review.problem.empty()) fail(request.rules + ": " + review.problem);
    if (!review.note.empty()) note(review.note);

    if (request.output == "-") {
        fputs(edited.text.c_str(), stdout);
        return kYes;
    }
    const bool changed = edited.text != text;
    if (byApply && (changed || !request.output.empty())) {
        if (const int status = apply(edited.text); status != kYes) return status;
    } else if (!request.output.empty()) {
        if (!base::WriteStringToFile(edited.text, path, /*follow_symlinks=*/true)) {
            fail(path + ": " + strerror(errno));
        }
    } else if (changed) {
        replaceTarget(path, edited.text);
    }
    if (!printRuleChanges(&before, &after, request.rules, path)) {
        puts(changed ? "every device is decided on as before"
                     : "nothing to do: the rules say so already");
    }
    printNewWarnings(path, text, edited.text);
    return kYes;
}

int runAllow(int argc, char** argv) { return edit(argc, argv, /*allow=*/true); }
int runBlock(int argc, char** argv) { return edit(argc, argv, /*allow=*/false); }

}  // namespace

const Command kAllowCommand = {"allow", "edit rules so that they allow a device", kHelp, runAllow};
const Command kBlockCommand = {"block", "edit rules so that they refuse a device", kHelp, runBlock};

}  // namespace android::kus
