// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>

#include "crash/crash_barrier.h"
#include "ku_service/KUsbService.h"
#include "usbdevice/UsbDevice.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using std::chrono::milliseconds;

const String16 kTopologyArgument("test");
constexpr char kNone[] = "<none>";

constexpr milliseconds kReaderPatience(5000);
constexpr int kMaxSlowReaders = 4;

std::atomic<int> slowReaders = 0;

/** Also true when a write would fail at once. */
bool isReady(int fd, milliseconds patience) {
    pollfd reader = {fd, POLLOUT, 0};
    return TEMP_FAILURE_RETRY(poll(&reader, 1, patience.count())) != 0;
}

bool waitForSlowReader(int fd) {
    const bool becameReady = ++slowReaders <= kMaxSlowReaders && isReady(fd, kReaderPatience);
    --slowReaders;
    return becameReady;
}

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

/**
 * Writes a file's content to the reader's descriptor. A reader that takes nothing for
 * kReaderPatience is given up, and at once where kMaxSlowReaders are waited for already: they must
 * not take all of the binder threads.
 */
void handOver(int file, int reader) {
    // A pipe that is ready for writing has room for this much.
    char piece[PIPE_BUF];
    ssize_t length;
    while ((length = TEMP_FAILURE_RETRY(read(file, piece, sizeof(piece)))) > 0) {
        if (!isReady(reader, milliseconds(0)) && !waitForSlowReader(reader)) {
            LOG(ERROR) << "dump is cut short: its reader takes nothing";
            return;
        }
        if (!base::WriteFully(reader, piece, length)) return;
    }
}

}  // namespace

status_t KUsbService::dump(int fd, const Vector<String16>& args) {
    // Printed into memory: a reader that does not drain its descriptor must not hold a lock. Where
    // there is no memory for it, or no descriptor, straight to the reader.
    const base::unique_fd memory(memfd_create("dump", MFD_CLOEXEC));
    {
        const SharedStateUse use;
        print(fd, memory.ok() ? memory.get() : fd, args);
    }
    if (memory.ok() && lseek(memory.get(), 0, SEEK_SET) == 0) handOver(memory.get(), fd);
    return OK;
}

void KUsbService::print(int fd, int text, const Vector<String16>& args) {
    if (!args.isEmpty()) {
        LOG(INFO) << "args[0] is" << String8(args[0]).c_str();
        if (args[0] == kTopologyArgument) {
            dprintf(text, "USB Test \n");
            UsbDevice::dump_print_test(fd, text);
        }
        return;
    }
    dprintf(text, "USB DEVICE INFO ");
    std::vector<DeviceInfo> devices;
    {
        const std::lock_guard lock(deviceListsLock);
        LOG(INFO) << "mInputDeviceInfoList size " << mInputDeviceInfoList.size()
                  << "mUsbDeviceInfoList size " << mUsbDeviceInfoList.size();
        appendRecords(&devices);
    }
    for (const DeviceInfo& device : devices) dumpPrint(text, device);
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
