// SPDX-License-Identifier: Apache-2.0
#include "ku_service/admission.h"

#include <android-base/logging.h>
#include <cutils/properties.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <shared_mutex>

#include "crash/crash_barrier.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr int32_t kHidClass = 3;

auto firstNonHid(const DeviceInfo& device) {
    return std::find_if(device.interfaceClassList.begin(), device.interfaceClassList.end(),
                        [](int32_t code) { return code != kHidClass; });
}

/** Brings the device-id map up to date, and tells whether the input subsystem is left to ask. */
bool isLeftToInputSubsystem(const DeviceInfo& device) {
    const bool onlyHid = hasOnlyHidInterfaces(device);
    if (!onlyHid) LOG(INFO) << "class is " << *firstNonHid(device) << "not HID";
    UsbDevice::create_usb_device_map();
    if (!onlyHid || UsbDevice::check_vendor_hid(device.deviceId)) return false;
    LOG(INFO) << "The HID device is controlled by Input Subsystem  ";
    return true;
}

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

bool matchClassRules(const DeviceInfo& device, std::string* reason) {
    *reason = "Match by ClassName, CLASS : ";
    return device.interfaceClassList.empty()
               ? matchInputSources(device.deviceClass, reason)
               : matchInterfaceClasses(device.interfaceClassList, reason);
}

bool matchVendorRules(const DeviceInfo& device, std::string* reason) {
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

bool hasOnlyHidInterfaces(const DeviceInfo& device) {
    return firstNonHid(device) == device.interfaceClassList.end();
}

bool evaluateRules(const DeviceInfo& device, const std::string& mode, std::string* reason) {
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

binder::Status KUsbService::isDeviceAllowed(const DeviceInfo& device, bool* allowed) {
    if (property_get_int32(kAutomationProperty, 0) == 1) {
        LOG(INFO) << "isDeviceAllowed::Automation flag set, return";
        *allowed = true;
        return binder::Status::ok();
    }

    std::shared_lock rules(ruleTablesLock);
    awaitRulesThatStay(&rules);
    const SharedStateUse use;
    // Or a removal on another thread could take away what a refusal has to be written to.
    std::optional<UsbDevice::KeptInMap> kept;
    if (device.deviceType == 0) kept.emplace(device.deviceId);
    const std::string mode = Util::getMode();
    if (device.deviceType == 0 && isLeftToInputSubsystem(device)) {
        *allowed = false;
        return binder::Status::ok();
    }
    std::string reason;
    const bool result = evaluateRules(device, mode, &reason);
    rules.unlock();

    LOG(INFO) << "isDeviceAllowed res val:" << result;
    if (!result && device.deviceType == 0) {
        LOG(INFO) << "isDeviceAllowed called and updating status authorized to 0";
        UsbDevice::update_status(device.deviceId, 0);
    }
    kept.reset();
    addDeviceList(device, result, reason);
    LOG(INFO) << "isDeviceAllowed called with mode: " << mode
              << " DeviceInfo:= { DeviceId:" << device.deviceId
              << ", DeviceName: " << device.deviceName
              << ", ClassName: " << Util::getClassName(device.deviceClass) << "[ "
              << device.deviceClass
              << " ], InterfaceClassCount: " << device.interfaceClassList.size()
              << ", VendorId: " << device.vendorId << ", ProductId: " << device.productId
              << ", Status: " << result << ", Reason: " << reason << " }";
    *allowed = result;
    return binder::Status::ok();
}

}  // namespace android::kus
