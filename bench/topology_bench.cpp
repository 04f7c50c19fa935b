// SPDX-License-Identifier: Apache-2.0
#include "compare.h"
#include "usb_machine.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

// The rooms of a decision, by devices and interfaces of each.

void scan(benchmark::State& state) {
    const UsbMachine machine(state.range(0), state.range(1));
    timeOnly(state, scanEntries, dropScan);
}
BENCHMARK(scan)->Args({120, 3})->UseManualTime();

void link(benchmark::State& state) {
    const UsbMachine machine(state.range(0), state.range(1));
    const auto scanUncategorised = [] {
        dropScan();
        scanEntries();
        // Mass storage is the one kind whose category needs no further reading.
        for (usbinterface& interface : UsbDevice::interface_list) interface.bInterfaceClass = 8;
    };
    scanUncategorised();
    timeOnly(state, UsbDevice::connect_devices, scanUncategorised);
    dropScan();
}
BENCHMARK(link)->Args({120, 3})->Args({120, 8})->UseManualTime()->Iterations(50);

void categorise(benchmark::State& state) {
    const UsbMachine machine(state.range(0), state.range(1));
    scanEntries();
    for (auto _ : state) {
        for (usbinterface& interface : UsbDevice::interface_list) {
            UsbDevice::populate_category_device(&interface);
        }
    }
    dropScan();
}
BENCHMARK(categorise)->Args({120, 3});

void query_topology(benchmark::State& state) {
    const UsbMachine machine(state.range(0), state.range(1));
    UsbDevice::create_usb_device_map();
    const int id = machine.lastDevice().deviceId;
    for (auto _ : state) {
        UsbDevice::check_vendor_hid(id);
        benchmark::DoNotOptimize(UsbDevice::get_deviceid_data(id));
    }
}
BENCHMARK(query_topology)->Args({120, 3});

}  // namespace
}  // namespace android::kus
