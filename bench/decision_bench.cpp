// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>

#include <utility>

#include "compare.h"
#include "ku_service/KUsbService.h"
#include "rules_file.h"
#include "usb_machine.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

constexpr int kInterfaces = 3;

/** Decides on a device as if it had just been attached. */
void decide(const sp<KUsbService>& service, const DeviceInfo& device) {
    bool allowed = false;
    service->isDeviceAllowed(device, &allowed);
    CHECK(allowed);
    mUsbDeviceInfoList.clear();
}

/**
 * Against the same reads by whole paths and from entries opened once. Only sysfs takes for a path
 * what a device's does: a tmpfs finds each of its components in a third of the time.
 */
void compareDeciding(benchmark::State& state, double targetByPath,
                     std::optional<double> targetFromEntry) {
    const UsbMachine machine(state.range(0), kInterfaces);
    const auto target = usesKernelsDevices() ? std::optional(targetByPath) : std::nullopt;
    const sp<KUsbService> service = new KUsbService();
    loadRules("<class>USB_CLASS_COMM</class><class>USB_CLASS_MASS_STORAGE</class>");
    using Lookup = UsbMachine::Lookup;
    compare(state,
            {{"by_path", [&] { machine.readBare(Lookup::byPath); }, target},
             {"from_entry", [&] { machine.readBare(Lookup::fromEntry); }, targetFromEntry}},
            [&] { decide(service, machine.lastDevice()); });
}

void decision(benchmark::State& state) { compareDeciding(state, 0.70, 1.25); }
BENCHMARK(decision)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Arg(32)->Arg(120)->UseManualTime();

/** Without the log lines, of which a decision writes 24 and five for each device. */
void decision_unlogged(benchmark::State& state) {
    const base::ScopedLogSeverity quiet(base::WARNING);
    compareDeciding(state, 0.60, std::nullopt);
}
BENCHMARK(decision_unlogged)->Arg(1)->Arg(8)->Arg(32)->Arg(120)->UseManualTime();

/**
 * Many vendor rules against few, none for a whole vendor, and the device's own is found by its
 * product.
 */
void decision_under_rules(benchmark::State& state) {
    const UsbMachine machine(1, kInterfaces);
    const sp<KUsbService> service = new KUsbService();
    DeviceInfo device = machine.lastDevice();
    device.vendorId = 1;
    device.productId = 7;

    loadRules(vendorRules(10));
    auto fewRules = std::exchange(vidPidMap, {});
    loadRules(vendorRules(state.range(0)));
    // Neither set has a whole vendor, so the map alone is what differs.
    CHECK(!lastWholeVendor);
    compare(state,
            {{"under_10_rules",
              [&] {
                  vidPidMap.swap(fewRules);
                  decide(service, device);
                  vidPidMap.swap(fewRules);
              },
              1.1}},
            [&] { decide(service, device); });
}
BENCHMARK(decision_under_rules)->RangeMultiplier(10)->Range(100, 100000)->UseManualTime();

}  // namespace
}  // namespace android::kus
