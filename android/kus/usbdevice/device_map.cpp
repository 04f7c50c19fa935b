// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include <condition_variable>
#include <iterator>
#include <memory>
#include <set>

#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

constexpr uint32_t kMassStorageClass = 8;

constexpr int32_t kCategoryNone = 0;
constexpr int32_t kCategoryNetwork = 1;
constexpr int32_t kCategoryTty = 2;
constexpr int32_t kCategoryMassStorage = 4;
constexpr int32_t kCategoryVendorHid = 8;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

bool isDots(const dirent* entry) {
    return strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0;
}

// sysfs always fills d_type, so an entry costs no stat.
bool isDirectory(const dirent* entry) { return entry->d_type == DT_DIR; }

/** The path of an interface's directory, and of the subdirectory that was entered last. */
class InterfacePath {
  public:
    explicit InterfacePath(const usbinterface& interface) {
        snprintf(path_, sizeof(path_), "%s/%s", kUsbDevicesPath, interface.name);
        path_[kNameSize - 1] = '\0';
    }

    // Never shortened again: an interface has at most one of the subdirectories that are entered.
    void enter(const char* name) {
        const size_t length = strlen(path_);
        snprintf(path_ + length, sizeof(path_) - length, "/%s", name);
    }

    const char* c_str() const { return path_; }

  private:
    char path_[kPathSize];
};

UniqueDir openOrLog(const InterfacePath& path, const char* logText) {
    UniqueDir dir(opendir(path.c_str()));
    if (dir == nullptr) LOG(INFO) << logText << path.c_str();
    return dir;
}

/** Stores the name of the directory's first subdirectory; false when it has none. */
bool firstSubdirectory(const InterfacePath& path, char (&name)[kTextSize]) {
    const UniqueDir dir = openOrLog(path, "Cannot open directory \n");
    if (dir == nullptr) return false;
    while (const dirent* entry = readdir(dir.get())) {
        if (isDots(entry) || !isDirectory(entry)) continue;
        snprintf(name, sizeof(name), "%.*s", static_cast<int>(sizeof(name) - 1), entry->d_name);
        return true;
    }
    return false;
}

/** True when the input subsystem has taken the HID device at `path`. */
bool hasInputDirectory(const InterfacePath& path) {
    const UniqueDir dir = openOrLog(path, "Cannot open subdir \n");
    if (dir == nullptr) return false;
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, "input") == 0 && isDirectory(entry)) return true;
    }
    return false;
}

/** What the map keeps of an interface that has its device. */
usbinterface_custom recordOf(const usbinterface& interface) {
    const usbdevice& device = *interface.parent;
    usbinterface_custom record = {};
    record.bInterfaceClass = interface.bInterfaceClass;
    record.bInterfaceNumber = interface.bInterfaceNumber;
    record.bInterfaceProtocol = interface.bInterfaceProtocol;
    record.bInterfaceSubClass = interface.bInterfaceSubClass;
    strcpy(record.name, interface.name);
    record.busnum = device.busnum;
    record.devnum = device.devnum;
    record.idVendor = device.idVendor;
    record.idProduct = device.idProduct;
    strcpy(record.manufacturer, device.manufacturer);
    strcpy(record.product, device.product);
    record.category = interface.category;
    strcpy(record.category_path, interface.category_path);
    return record;
}

// Guarded by topologyLock.
std::multiset<int> keptDevices;
// Never destroyed: at the exit after a crash a removal may still wait on it.
auto& noLongerKept = *new std::condition_variable;

}  // namespace

std::mutex UsbDevice::topologyLock;
std::multimap<int32_t, usbinterface_custom> UsbDevice::deviceid_map;

UsbDevice::KeptInMap::KeptInMap(int deviceId) : deviceId_(deviceId) {
    const std::lock_guard lock(topologyLock);
    keptDevices.insert(deviceId_);
}

UsbDevice::KeptInMap::~KeptInMap() {
    const std::lock_guard lock(topologyLock);
    keptDevices.erase(keptDevices.find(deviceId_));
    noLongerKept.notify_all();
}

void UsbDevice::create_usb_device_map() {
    LOG(INFO) << "create_usb_device_map called";
    const std::lock_guard lock(topologyLock);
    deviceid_map.clear();
    if (!scan_bus_entries()) perror(kUsbDevicesPath);
    delete_all_nodes();
    empty_list();
    print_deviceid_map(-1);
    LOG(INFO) << "create_usb_device_map returned check loop";
}

bool UsbDevice::scan_bus_entries() {
    UniqueDir dir(opendir(kUsbDevicesPath));
    if (dir == nullptr) return false;
    while (const dirent* entry = readdir(dir.get())) inspect_bus_entry(entry->d_name);
    dir.reset();
    connect_devices();
    return true;
}

int32_t UsbDevice::device_id(const usbdevice& device) {
    return device.busnum * 1000 + device.devnum;
}

void UsbDevice::fill_deviceid_map() {
    for (usbinterface& interface : interface_list) {
        if (verbose_trace) {
            LOG(INFO) << "creating object and populating map  usbinterface:" << interface.name
                      << " and class: " << interface.bInterfaceClass;
        }
        if (interface.parent == nullptr) continue;
        populate_category_device(&interface);

        const usbdevice& device = *interface.parent;
        const int32_t id = device_id(device);
        if (verbose_trace) {
            LOG(INFO) << "creating object and populating \t parent vendorid : " << device.idVendor
                      << ", productid: " << device.idProduct << ",parent path: " << device.name
                      << ",manufacturer: " << device.manufacturer << ",product: " << device.product
                      << ",deviceId:" << id;
        }
        if (verbose_trace) {
            LOG(INFO) << "creating object and populating category_path" << interface.category_path
                      << " and category:" << interface.category
                      << " interface path:" << interface.name;
        }
        deviceid_map.emplace(id, recordOf(interface));
    }
}

void UsbDevice::populate_category_device(usbinterface* i) {
    InterfacePath path(*i);
    if (verbose_trace) LOG(INFO) << "path of dir:" << path.c_str();
    if (verbose_trace) LOG(INFO) << "Other category default to none";
    i->category = kCategoryNone;
    strcpy(i->category_path, "empty");
    if (i->bInterfaceClass == kMassStorageClass) {
        i->category = kCategoryMassStorage;
        strcpy(i->category_path, "sdcard");
        return;
    }

    const UniqueDir dir = openOrLog(path, "Cannot open directory \n");
    if (dir == nullptr) return;
    while (const dirent* entry = readdir(dir.get())) {
        if (verbose_trace) LOG(INFO) << "Entered while with dir is :" << entry->d_name;
        if (isDots(entry)) continue;
        if (strcmp(entry->d_name, "net") == 0) {
            i->category = kCategoryNetwork;
            if (!isDirectory(entry)) continue;
            path.enter("net");
            LOG(INFO) << " new path of dir:" << path.c_str();
            if (!firstSubdirectory(path, i->category_path)) continue;
            if (verbose_trace) {
                LOG(INFO) << "updating the devcategory path for network and return:"
                          << i->category_path;
            }
            return;
        }
        if (strcmp(entry->d_name, "tty") == 0) {
            i->category = kCategoryTty;
            if (!isDirectory(entry)) continue;
            path.enter("tty");
            if (verbose_trace) LOG(INFO) << " new path of dir in tty:" << path.c_str();
            if (!firstSubdirectory(path, i->category_path)) continue;
            if (verbose_trace) {
                LOG(INFO) << "updating the devcategory path for tty and return:"
                          << i->category_path;
            }
            return;
        }
        // A HID device's directory, such as 0003:046D:C31C.0001.
        if (strchr(entry->d_name, ':') != nullptr && isDirectory(entry)) {
            path.enter(entry->d_name);
            LOG(INFO) << " new path of subdir for HID:" << path.c_str();
            if (hasInputDirectory(path)) {
                if (verbose_trace) LOG(INFO) << "input device found";
                continue;
            }
            LOG(INFO) << "vendor HID device found";
            i->category = kCategoryVendorHid;
            return;
        }
    }
}

std::vector<usbinterface_custom> UsbDevice::records_of(int deviceId) {
    const auto [first, last] = deviceid_map.equal_range(deviceId);
    std::vector<usbinterface_custom> records;
    records.reserve(std::distance(first, last));
    for (auto it = first; it != last; ++it) records.push_back(it->second);
    return records;
}

std::vector<usbinterface_custom> UsbDevice::get_deviceid_data(int deviceId) {
    const std::lock_guard lock(topologyLock);
    LOG(INFO) << "get_deviceid_data() with deviceId : " << deviceId << "size--"
              << deviceid_map.size();
    std::vector<usbinterface_custom> records = records_of(deviceId);
    for (const usbinterface_custom& record : records) {
        LOG(INFO) << "Found deviceid  : " << deviceId << "device : " << record.name;
    }
    return records;
}

bool UsbDevice::check_vendor_hid(int deviceId) {
    LOG(INFO) << "check_vendor_hid " << deviceId;
    const std::lock_guard lock(topologyLock);
    for (const usbinterface_custom& record : records_of(deviceId)) {
        LOG(INFO) << "Found deviceId in native list : " << deviceId << "\t interface path"
                  << record.name << " device category" << record.category;
        if (record.category == kCategoryVendorHid) return true;
    }
    return false;
}

void UsbDevice::update_deviceid_map(int deviceId, bool flag) {
    LOG(INFO) << "update_deviceid_map deviceId:" << deviceId << " flag:" << flag;
    if (flag) return;
    std::unique_lock lock(topologyLock);
    noLongerKept.wait(lock, [&] { return keptDevices.count(deviceId) == 0; });
    deviceid_map.erase(deviceId);
}

}  // namespace android::kus
