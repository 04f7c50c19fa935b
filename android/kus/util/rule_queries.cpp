// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>

#include <algorithm>

#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

// The low byte of an input source is its class (button, pointer, joystick ...), not a source.
constexpr int kSourceClassMask = 0xFF;

bool contains(const std::vector<int32_t>& codes, unsigned int code) {
    return std::find(codes.begin(), codes.end(), static_cast<int32_t>(code)) != codes.end();
}

}  // namespace

std::string Util::getMode() { return configMode; }

bool Util::validateClass(unsigned int code) {
    if (!contains(classList, code)) return false;
    LOG(INFO) << "Found CLASS : " << code << " in admin config list";
    return true;
}

bool Util::validateRestrictedClass(unsigned int code) {
    if (!contains(restrictedClasses, code)) return false;
    LOG(INFO) << "Found CLASS : " << code << " in restricted class list";
    return true;
}

bool Util::validateVid(int vid) {
    if (vidPidMap.find(vid) == vidPidMap.end()) return false;
    // A greater vendor counts on purpose: when it is listed without products, this one matches as
    // a whole.
    if (lastWholeVendor < vid) return false;
    LOG(INFO) << "Found VID : " << vid << " without any pid associated inside admin config list.";
    return true;
}

bool Util::validateVidPid(int vid, int pid) {
    const auto [first, last] = vidPidMap.equal_range(vid);
    const auto pair =
        std::find_if(first, last, [pid](const auto& entry) { return entry.second == pid; });
    if (pair == last) return false;
    LOG(INFO) << "Found VID_PID : " << vid << "_" << pid << " combination inside admin config list";
    return true;
}

std::vector<int32_t> Util::checkMultiClass(int key_val) {
    LOG(INFO) << "checkMultiClass key_val" << key_val;
    const int mask = key_val & ~kSourceClassMask;
    LOG(INFO) << "checkMultiClass--" << mask;
    // The line end is part of both texts.
    if (inputSourceNames.count(mask) != 0) {
        LOG(INFO) << "Key found" << std::endl;
        return {mask};
    }
    LOG(INFO) << "Key not found" << std::endl;
    std::vector<int32_t> sources;
    for (const auto& [source, name] : inputSourceNames) {
        if ((source & ~mask) == 0) sources.push_back(source);
    }
    return sources;
}

}  // namespace android::kus
