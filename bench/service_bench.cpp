// SPDX-License-Identifier: Apache-2.0
#include <android-base/unique_fd.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include "ku_service/KUsbService.h"
#include "rules_file.h"
#include "usb_machine.h"

namespace android::kus {
namespace {

/** A client of another process, as far as the registry can tell. */
class RemoteCallback : public BnKUsbServiceCallback {
    binder::Status onDeviceAdded(const DeviceInfo&) override { return binder::Status::ok(); }
    binder::Status onDeviceRemoved(const DeviceInfo&) override { return binder::Status::ok(); }
    status_t linkToDeath(const sp<DeathRecipient>&, void*, uint32_t) override { return OK; }
};

DeviceInfo stick(int id) {
    DeviceInfo device;
    device.deviceName = "stick";
    device.deviceId = id;
    device.interfaceClassList = {8};
    device.vendorId = 1;
    return device;
}

/** addDeviceList with this many clients, by way of a decision on a machine without USB. */
void notify(benchmark::State& state) {
    makeMachineWithoutUsb();
    loadRules("<vid vendorid=\"1\"/>");
    const sp<KUsbService> service = new KUsbService();
    for (int i = 0; i < state.range(0); ++i) service->registerKusCallback(new RemoteCallback());
    for (auto _ : state) {
        bool allowed;
        service->isDeviceAllowed(stick(1002), &allowed);
        mUsbDeviceInfoList.clear();
    }
}
BENCHMARK(notify)->Arg(0)->Arg(10)->Arg(100);

void dumpToNull(benchmark::State& state, const Vector<String16>& args) {
    const base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const sp<KUsbService> service = new KUsbService();
    for (auto _ : state) service->dump(null.get(), args);
}

void dump(benchmark::State& state) {
    for (int i = 0; i < state.range(0); ++i) {
        mUsbDeviceInfoList.emplace(i, std::make_unique<DeviceInfo>(stick(i)));
    }
    dumpToNull(state, {});
    mUsbDeviceInfoList.clear();
}
BENCHMARK(dump)->Arg(120);

void dump_topology(benchmark::State& state) {
    const UsbMachine machine(state.range(0), 3);
    Vector<String16> args;
    args.push_back(String16("test"));
    dumpToNull(state, args);
}
BENCHMARK(dump_topology)->Arg(120);

}  // namespace
}  // namespace android::kus
