// SPDX-License-Identifier: Apache-2.0
//
// An input is a rules file. Comments in it may ask about devices, one a line: "<!--?" and numbers
// for the device's type, vendor, product and class, and for the class of each of its interfaces.
#include <android-base/logging.h>
#include <android/kus/DeviceInfo.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "fuzz_world.h"
#include "ku_service/admission_rules.h"
#include "rules_model.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr char kQuestion[] = "<!--?";
constexpr size_t kMostDevices = 8;

/** Parses in a process of its own, which has to end by this signal. */
void expectDeath(int expected) {
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) {
        for (const int fatal : {SIGABRT, SIGSEGV}) signal(fatal, SIG_DFL);
        prctl(PR_SET_DUMPABLE, 0);
        Util::createMapFromConfig(configFilePath);
        _exit(0);
    }
    int status;
    CHECK(TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child);
    CHECK(WIFSIGNALED(status) && WTERMSIG(status) == expected)
        << "expected signal " << expected << ", not the status " << status;
}

void expectTables(const RulesModel& model) {
    CHECK(classList == model.classes);
    CHECK(vidPidMap == model.products);
    for (const int32_t code : classList) {
        CHECK(Util::validateClass(code));
        CHECK(!Util::validateRestrictedClass(code));
        CHECK_EQ(Util::convert(Util::getClassName(code)), static_cast<uint32_t>(code));
        CHECK_EQ(classNameMap.at(code), Util::getClassName(code));
    }
}

std::vector<DeviceInfo> devicesToAskAbout(const std::string& text) {
    std::vector<DeviceInfo> devices;
    for (size_t at = 0; devices.size() < kMostDevices;) {
        at = text.find(kQuestion, at);
        if (at == std::string::npos) break;
        at += strlen(kQuestion);
        std::vector<int32_t> numbers;
        char* end;
        for (const char* c = text.c_str() + at;; c = end) {
            const long number = strtol(c, &end, 0);
            if (end == c) break;
            numbers.push_back(number);
        }
        if (numbers.size() < 4) continue;
        DeviceInfo& device = devices.emplace_back();
        device.deviceType = numbers[0];
        device.vendorId = numbers[1];
        device.productId = numbers[2];
        device.deviceClass = numbers[3];
        device.interfaceClassList.assign(numbers.begin() + 4, numbers.end());
    }
    for (const auto& [vendor, product] : vidPidMap) {
        if (devices.size() >= kMostDevices) break;
        DeviceInfo& device = devices.emplace_back();
        device.vendorId = vendor;
        device.productId = product;
    }
    return devices;
}

bool evaluate(const DeviceInfo& device, const std::string& mode) {
    std::string reason;
    const bool allowed = evaluateRules(device, mode, &reason);
    CHECK(!reason.empty());
    return allowed;
}

void expectConsistentAnswers(DeviceInfo device) {
    const int32_t vendor = device.vendorId, product = device.productId;
    bool whole = false, listed = false, pair = false;
    for (const auto& [vid, pid] : vidPidMap) {
        whole |= vid >= vendor && pid == ANY_PRODUCT;
        listed |= vid == vendor;
        pair |= vid == vendor && pid == product;
    }
    CHECK_EQ(Util::validateVid(vendor), listed && whole);
    CHECK_EQ(Util::validateVidPid(vendor, product), pair);

    const bool allowed = evaluate(device, "whitelist");
    if (pair || (listed && whole)) CHECK(allowed);
    CHECK_NE(evaluate(device, "blacklist"), allowed);
    CHECK_EQ(evaluate(device, "no mode"), allowed);
    CHECK(evaluate(device, "default"));
    std::reverse(device.interfaceClassList.begin(), device.interfaceClassList.end());
    CHECK_EQ(evaluate(device, "whitelist"), allowed);

    for (const int32_t source : Util::checkMultiClass(device.deviceClass)) {
        CHECK_EQ(source & ~device.deviceClass, 0);
        CHECK_NE(Util::getClassName(source), " ");
    }
}

void expectSameFromBackup(const RulesModel& model) {
    CHECK(Util::copyFileContent(configFilePath, backupFilePath));
    Util::createMapFromConfig(backupFilePath);
    CHECK(xml_parse_status);
    expectTables(model);
}

}  // namespace

void runInput(const std::string& text) {
    writeFile(configFilePath, text);
    const RulesModel model = modelOf(text);
    if (model.ending != RulesModel::Ending::kReturns) {
        return expectDeath(model.ending == RulesModel::Ending::kAborts ? SIGABRT : SIGSEGV);
    }
    configMode = "default";
    errorMessage = "SUCCESS";
    Util::createMapFromConfig(configFilePath);
    CHECK_EQ(xml_parse_status, model.accepted);
    expectTables(model);
    for (const DeviceInfo& device : devicesToAskAbout(text)) expectConsistentAnswers(device);
    if (model.accepted) expectSameFromBackup(model);
}

}  // namespace android::kus
