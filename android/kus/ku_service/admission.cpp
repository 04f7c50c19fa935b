// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <cutils/properties.h>

#include <optional>
#include <shared_mutex>

#include "crash/crash_barrier.h"
#include "ku_service/KUsbService.h"
#include "ku_service/admission_rules.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

/** Brings the device-id map up to date, and tells whether the input subsystem is left to ask. */
bool isLeftToInputSubsystem(const DeviceInfo& device) {
    const std::optional<int32_t> otherClass = firstNonHidClass(device);
    if (otherClass) LOG(INFO) << "class is " << *otherClass << "not HID";
    UsbDevice::create_usb_device_map();
    if (otherClass || UsbDevice::check_vendor_hid(device.deviceId)) return false;
    LOG(INFO) << "The HID device is controlled by Input Subsystem  ";
    return true;
}

}  // namespace

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
