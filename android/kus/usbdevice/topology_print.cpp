#include <android-base/logging.h>
#include <stdio.h>

#include <string>

#include "usbdevice/UsbDevice.h"

namespace android::kus {

void UsbDevice::print_deviceid_map(int fd) {
    LOG(INFO) << "print_deviceid_map ";
    if (fd != -1) {
        dprintf(fd, "\n\nDeviceIdMap size%s\n", std::to_string(deviceid_map.size()).c_str());
    }
    for (const auto& [id, record] : deviceid_map) {
        LOG(INFO) << " DeviceId: " << id << " Interface name:" << record.name
                  << " class:" << record.bInterfaceClass << " Vendor ID:" << record.idVendor
                  << " Product ID:" << record.idProduct;
        if (fd != -1) {
            dprintf(fd,
                    "\n DeviceId : %d, Interface name : %s, class : %u, Vendor ID : %u, "
                    "Product ID : %u \n",
                    id, record.name, record.bInterfaceClass, record.idVendor, record.idProduct);
        }
    }
}

}  // namespace android::kus
