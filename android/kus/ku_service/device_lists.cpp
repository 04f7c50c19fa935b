// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <cutils/properties.h>

#include "crash/crash_barrier.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

/**
 * Fills in the sum of the interfaces' categories, and their paths; one that is part of what the
 * others before it gave is left out.
 */
void categorise(DeviceInfo* device) {
    const std::vector<usbinterface_custom> interfaces =
        UsbDevice::get_deviceid_data(device->deviceId);
    LOG(INFO) << device->deviceName << " device added to mUsbDeviceInfoList ";
    LOG(INFO) << "custom_struct size is " << interfaces.size();
    for (const usbinterface_custom& interface : interfaces) {
        device->category += interface.category;
        const std::string path = interface.category_path;
        if (!path.empty() && device->categoryPath.find(path) == std::string::npos) {
            device->categoryPath += path + ";";
        }
    }
    LOG(INFO) << " device category  " << device->category << " categoryPath "
              << device->categoryPath;
}

/** A dead client is no failure: its registration is about to go. */
void reportLostNotice(const char* notice, const IKUsbServiceCallback* client,
                      const binder::Status& status) {
    if (status.isOk() || status.transactionError() == DEAD_OBJECT) return;
    LOG(ERROR) << "Could not give " << notice << " to client " << client << ": "
               << status.toString8().c_str();
}

void insert(DeviceInfoList* list, std::unique_ptr<DeviceInfo> record) {
    const std::lock_guard lock(deviceListsLock);
    const int32_t id = record->deviceId;
    list->emplace(id, std::move(record));
}

void erase(DeviceInfoList* list, int32_t deviceId) {
    const std::lock_guard lock(deviceListsLock);
    list->erase(deviceId);
}

}  // namespace

std::mutex deviceListsLock;
DeviceInfoList mUsbDeviceInfoList;
DeviceInfoList mInputDeviceInfoList;

void appendRecords(std::vector<DeviceInfo>* devices) {
    for (const DeviceInfoList* list : {&mInputDeviceInfoList, &mUsbDeviceInfoList}) {
        for (const auto& [id, record] : *list) devices->push_back(*record);
    }
}

void KUsbService::addDeviceList(DeviceInfo device, bool status, std::string reason) {
    auto record = std::make_unique<DeviceInfo>(std::move(device));
    record->status = status;
    record->reason = std::move(reason);
    record->category = 0;
    record->categoryPath.clear();

    if (record->deviceType != 0) {
        LOG(INFO) << record->deviceName << " device added to mInputDeviceInfoList";
        insert(&mInputDeviceInfoList, std::move(record));
        return;
    }
    categorise(record.get());
    for (const auto& callback : registeredCallbacks()) {
        if (isUserDebugBuild) {
            LOG(INFO) << "addDeviceList: sending callback to client of onDeviceAdded  "
                      << callback.get();
        }
        reportLostNotice("onDeviceAdded", callback.get(), callback->onDeviceAdded(*record));
    }
    insert(&mUsbDeviceInfoList, std::move(record));
}

binder::Status KUsbService::updateDeviceList(const DeviceInfo& device, int32_t updateStatus) {
    const SharedStateUse use;
    if (property_get_int32(kAutomationProperty, 0) == 1) {
        LOG(INFO) << "updateDeviceList::Automation flag set, return";
        return binder::Status::ok();
    }
    LOG(INFO) << "updateDeviceList--Device Name : " << device.deviceName
              << "updateStatus::Added/Removed " << updateStatus;
    if (updateStatus != 0) {
        // Only logged: a device enters the lists through isDeviceAllowed alone.
        if (device.deviceType != 0) {
            LOG(INFO) << device.deviceName << " device added to mInputDeviceInfoList";
        } else {
            LOG(INFO) << device.deviceName << " device added to mUsbDeviceInfoList";
        }
    } else if (device.deviceType != 0) {
        LOG(INFO) << device.deviceName << " device removed from mInputDeviceInfoList";
        erase(&mInputDeviceInfoList, device.deviceId);
    } else {
        LOG(INFO) << "updateDeviceList--calling get_deviceid_data while removing";
        for (const auto& callback : registeredCallbacks()) {
            if (isUserDebugBuild) {
                LOG(INFO) << "updateDeviceList--: sending callback to client onDeviceRemoved "
                          << callback.get();
            }
            reportLostNotice("onDeviceRemoved", callback.get(), callback->onDeviceRemoved(device));
        }
        UsbDevice::update_deviceid_map(device.deviceId, false);
        LOG(INFO) << device.deviceName << " device removed from mUsbDeviceInfoList";
        erase(&mUsbDeviceInfoList, device.deviceId);
    }
    const std::lock_guard lock(deviceListsLock);
    LOG(INFO) << "updateDeviceList--mInputDeviceInfoList size: " << mInputDeviceInfoList.size()
              << " mUsbDeviceInfoList size: " << mUsbDeviceInfoList.size();
    return binder::Status::ok();
}

binder::Status KUsbService::getDeviceList(std::vector<DeviceInfo>* devices) {
    const SharedStateUse use;
    LOG(INFO) << "--getDeviceList()--";
    const std::lock_guard lock(deviceListsLock);
    LOG(INFO) << "getDeviceList--completeDeviceInfoList size"
              << mInputDeviceInfoList.size() + mUsbDeviceInfoList.size();
    appendRecords(devices);
    return binder::Status::ok();
}

binder::Status KUsbService::resetUsbDevices(int32_t waitMs) {
    LOG(INFO) << "resetUsbDevices called";
    UsbDevice::usb_host_reset(waitMs);
    return binder::Status::ok();
}

}  // namespace android::kus
