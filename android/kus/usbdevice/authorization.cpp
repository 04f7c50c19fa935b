// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "usbdevice/UsbDevice.h"

namespace android::kus {

// The interface's `authorized` attribute, not the device's: the device stays configured and can be
// listed (Documentation/usb/authorization.rst of the kernel).
void UsbDevice::update_status(int deviceId, int status) {
    LOG(INFO) << "update_status path with deviceId " << deviceId << " status:" << status;
    std::vector<usbinterface_custom> records;
    {
        const std::lock_guard lock(topologyLock);
        records = records_of(deviceId);
    }
    for (const usbinterface_custom& record : records) {
        LOG(INFO) << "Found deviceId in native list : " << deviceId << "\t interface path"
                  << record.name;
        if (record.name[0] == '\0') {
            LOG(INFO) << "update_status interface_name is NULL";
            continue;
        }
        char path[kPathSize];
        snprintf(path, sizeof(path), "%s/%s/authorized", kUsbDevicesPath, record.name);
        LOG(INFO) << "update_status path is :" << path;
        const android::base::unique_fd fd(open(path, O_WRONLY | O_CLOEXEC));
        if (!fd.ok()) {
            perror("Unable to open the file");
            LOG(ERROR) << "Error! Could not open file";
            return;
        }
        if (write(fd.get(), status != 0 ? "1" : "0", 1) != 1) {
            perror("Error writing to sysfs file");
            LOG(ERROR) << "Error! Could not open file";
            return;
        }
    }
}

}  // namespace android::kus
