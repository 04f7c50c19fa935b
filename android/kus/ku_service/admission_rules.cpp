// SPDX-License-Identifier: Apache-2.0
#include "ku_service/admission_rules.h"

#include <android-base/logging.h>

#include <algorithm>

#include "util/Util.h"

namespace android::kus {
namespace {

constexpr int32_t kHidClass = 3;

/**
 * True when every interface class is listed, apart from restricted ones, and at least one is. The
 * names of the listed ones go into the reason.
 */
bool matchInterfaceClasses(const std::vector<int32_t>& classes, std::string* reason) {
    bool matched = false;
    for (const int32_t code : classes) {
        LOG(INFO) << code << "\n";
        if (Util::validateRestrictedClass(code)) continue;
        if (!Util::validateClass(code)) {
            LOG(INFO) << "interface class check false breaking";
            return false;
        }
        matched = true;
        const std::string name = Util::getClassName(code);
        if (reason->find(name) == std::string::npos) *reason += name + " ";
    }
    return matched;
}

/** True when the mask holds an input source and each one is listed. */
bool matchInputSources(int32_t sourceMask, std::string* reason) {
    const std::vector<int32_t> sources = Util::checkMultiClass(sourceMask);
    for (const int32_t source : sources) {
        const bool listed = Util::validateClass(source);
        LOG(INFO) << "HID multiClass check";
        if (!listed) {
            LOG(INFO) << "HID multi class check false breaking";
            return false;
        }
        *reason += Util::getClassName(source) + " ";
    }
    return !sources.empty();
}

bool matchClassRules(const DeviceTraits& device, std::string* reason) {
    *reason = "Match by ClassName, CLASS : ";
    return device.interfaceClassList.empty()
               ? matchInputSources(device.deviceClass, reason)
               : matchInterfaceClasses(device.interfaceClassList, reason);
}

bool matchVendorRules(const DeviceTraits& device, std::string* reason) {
    if (Util::validateVid(device.vendorId)) {
        *reason = "Match by VID, VID : " + std::to_string(device.vendorId);
        return true;
    }
    if (Util::validateVidPid(device.vendorId, device.productId)) {
        *reason = "Match by VID_PID combination, VID : " + std::to_string(device.vendorId) +
                  " PID: " + std::to_string(device.productId);
        return true;
    }
    return false;
}

}  // namespace

std::optional<int32_t> firstNonHidClass(const DeviceTraits& device) {
    const auto& classes = device.interfaceClassList;
    const auto found = std::find_if(classes.begin(), classes.end(),
                                    [](int32_t code) { return code != kHidClass; });
    if (found == classes.end()) return {};
    return *found;
}

bool hasOnlyHidInterfaces(const DeviceTraits& device) { return !firstNonHidClass(device); }

bool evaluateRules(const DeviceTraits& device, const std::string& mode, std::string* reason) {
    *reason = "Enabled by default rule";
    if (mode == "default") return true;

    const bool matched = matchClassRules(device, reason) || matchVendorRules(device, reason);
    if (mode == "blacklist") {
        *reason =
            matched ? "Blacklisted: " + *reason : "No matching rule found to Blacklist the device";
        return !matched;
    }
    *reason =
        matched ? "Whitelisted: " + *reason : "No matching rule found to Whitelist the device";
    return matched;
}

}  // namespace android::kus
