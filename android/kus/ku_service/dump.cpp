// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <stdio.h>

#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"

namespace android::kus {
namespace {

const String16 kTopologyArgument("test");
constexpr char kNone[] = "<none>";

/** The name of each class once; an empty name never. */
void appendOnce(std::string* names, const std::string& name) {
    if (names->find(name) == std::string::npos) *names += name + ";";
}

/** The names of an input device's sources. */
std::string sourceNames(int32_t sourceMask) {
    std::string names;
    for (const int32_t source : Util::checkMultiClass(sourceMask)) {
        names += Util::getClassName(source) + ";";
    }
    return names;
}

/** Sorts the names of the interface classes into those that rules may name and restricted ones. */
void classNames(const std::vector<int32_t>& classes, std::string* ordinary,
                std::string* restricted) {
    for (const int32_t code : classes) {
        const std::string name = Util::getClassName(code);
        LOG(INFO) << "dumpPrint--" << name;
        appendOnce(Util::validateRestrictedClass(code) ? restricted : ordinary, name);
    }
    // One or the other: where both are empty, the ordinary names are printed empty.
    if (restricted->empty()) {
        LOG(INFO) << "restrictedClassList is null";
        *restricted = kNone;
    } else if (ordinary->empty()) {
        LOG(INFO) << "interfaceClassListStr is null";
        *ordinary = kNone;
    }
}

}  // namespace

status_t KUsbService::dump(int fd, const Vector<String16>& args) {
    if (!args.isEmpty()) {
        LOG(INFO) << "args[0] is" << String8(args[0]).c_str();
        if (args[0] == kTopologyArgument) {
            dprintf(fd, "USB Test \n");
            UsbDevice::dump_print_test(fd);
        }
        return OK;
    }
    dprintf(fd, "USB DEVICE INFO ");
    // Printed from a copy: a reader that does not drain the descriptor must not hold the lists.
    std::vector<DeviceInfo> devices;
    {
        const std::lock_guard lock(deviceListsLock);
        LOG(INFO) << "mInputDeviceInfoList size " << mInputDeviceInfoList.size()
                  << "mUsbDeviceInfoList size " << mUsbDeviceInfoList.size();
        for (const DeviceInfoList* list : {&mInputDeviceInfoList, &mUsbDeviceInfoList}) {
            for (const auto& [id, record] : *list) devices.push_back(*record);
        }
    }
    for (const DeviceInfo& device : devices) dumpPrint(fd, device);
    return OK;
}

void KUsbService::dumpPrint(int fd, DeviceInfo device) {
    LOG(INFO) << "Dump DeviceInfo:= { DeviceId:" << device.deviceId
              << ", DeviceName: " << device.deviceName
              << ", ClassName: " << Util::getClassName(device.deviceClass) << "[ "
              << device.deviceClass << "] , VendorId: " << device.vendorId
              << ", ProductId: " << device.productId << " }";
    std::string ordinary, restricted;
    if (device.deviceType != 0) {
        ordinary = sourceNames(device.deviceClass);
        restricted = kNone;
    } else {
        classNames(device.interfaceClassList, &ordinary, &restricted);
    }
    LOG(INFO) << "interfaceClassListStr " << ordinary;
    dprintf(fd, "\nDevice name : %s", device.deviceName.c_str());
    dprintf(fd, "\n   Device type(1=HID/0=Non-HID) : %d", device.deviceType);
    dprintf(fd, "\n   DeviceID : %u", device.deviceId);
    dprintf(fd, "\n   Device class name : %s", ordinary.c_str());
    dprintf(fd, "\n   Restricted class name : %s", restricted.c_str());
    dprintf(fd, "\n   Device Vendor Id : %d", device.vendorId);
    dprintf(fd, "\n   Device Product Id : %d", device.productId);
    dprintf(fd, "\n   Device status(1-enabled/0-disabled): %d", device.status);
    dprintf(fd, "\n   Reason : %s\n", device.reason.c_str());
}

}  // namespace android::kus
