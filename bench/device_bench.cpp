// SPDX-License-Identifier: Apache-2.0
#include <android-base/logging.h>
#include <android-base/stringprintf.h>
#include <binder/ProcessState.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "device_test.h"
#include "kernel_trace.h"
#include "median.h"
#include "process.h"

namespace android::kus {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int kRecords = 100;
constexpr int kFirstId = 90000;
constexpr int kPlugs = 7;
constexpr int kHundreds = 30;
/** In KiB. */
constexpr long kMostGrowth = 256;

constexpr char kCallerRole[] = "--caller";
constexpr auto kCallingTime = 1s;

/** A process of its own that, once poked, calls getDeviceList for a second. */
class Caller : public Process {
  public:
    Caller() : Process({"/proc/self/exe", kCallerRole}) { EXPECT_EQ(line(), "ready"); }
    /** Waits for the count; 0 when none comes. */
    int callsPerSecond() { return atoi(line().c_str()) / kCallingTime.count(); }
};

int runCaller() {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const sp<IKUsbService> kus = service();
    puts("ready");
    getchar();
    int calls = 0;
    for (const auto end = Clock::now() + kCallingTime; Clock::now() < end; ++calls) {
        std::vector<DeviceInfo> devices;
        kus->getDeviceList(&devices);
    }
    printf("%d\n", calls);
    return 0;
}

/** While it lives no one but the test asks the daemon about devices. */
class NoGate {
  public:
    NoGate() { shell("services stop kusgate"); }
    ~NoGate() { shell("services start kusgate"); }
};

/** What the daemon costs on this device. A missed target is a failure. */
class DeviceBench : public DeviceTest {
  protected:
    void attach(int id);
    void detach(int id);
    void attachAndDetach();
    void reportListing();

    sp<IKUsbService> kus_ = service();
};

/** While it lives a scan finds no devices, so that a decision costs little besides its record. */
class HiddenBus {
  public:
    HiddenBus() { EXPECT_EQ(mount("tmpfs", kUsbDevices, "tmpfs", 0, nullptr), 0); }
    ~HiddenBus() { EXPECT_EQ(umount(kUsbDevices), 0); }

  private:
    static constexpr char kUsbDevices[] = "/sys/bus/usb/devices";
};

DeviceInfo deviceWithId(int id) {
    DeviceInfo device;
    device.deviceName = "A device of some name";
    device.deviceId = id;
    device.interfaceClassList = {8};
    return device;
}

void DeviceBench::attach(int id) {
    bool allowed = false;
    EXPECT_TRUE(kus_->isDeviceAllowed(deviceWithId(id), &allowed).isOk());
}

void DeviceBench::detach(int id) {
    EXPECT_TRUE(kus_->updateDeviceList(deviceWithId(id), 0).isOk());
}

void DeviceBench::attachAndDetach() {
    attach(kFirstId - 1);
    detach(kFirstId - 1);
}

void DeviceBench::reportListing() {
    std::vector<DeviceInfo> devices;
    std::vector<double> roundTrips;
    for (int i = 0; i < 100; ++i) {
        devices.clear();
        const auto start = Clock::now();
        EXPECT_TRUE(kus_->getDeviceList(&devices).isOk());
        roundTrips.push_back(Milliseconds(Clock::now() - start).count());
    }
    printf("getDeviceList of %zu records: %.2f ms a call", devices.size(), median(roundTrips));
    for (const int clients : {1, 4}) {
        std::vector<std::unique_ptr<Caller>> callers;
        for (int i = 0; i < clients; ++i) callers.push_back(std::make_unique<Caller>());
        for (const auto& caller : callers) caller->poke();
        int rate = 0;
        for (const auto& caller : callers) rate += caller->callsPerSecond();
        printf(", %d calls/s from %d client%s", rate, clients, clients == 1 ? "" : "s");
    }
    printf("\n");
}

TEST_F(DeviceBench, Listing) {
    const NoGate alone;
    reportListing();
    for (int i = 0; i < kRecords; ++i) attach(kFirstId + i);
    reportListing();
    for (int i = 0; i < kRecords; ++i) detach(kFirstId + i);
}

TEST_F(DeviceBench, Memory) {
    const NoGate alone;
    shell("services start kusd");
    awaitDaemon();
    kus_ = service();
    const pid_t daemon = daemonPid();
    const long idle = residentKilobytes(daemon);
    reportListing();
    for (int i = 0; i < kRecords; ++i) attach(kFirstId + i);
    reportListing();
    // From here on the clients of the listing have made all the binder threads that it takes.
    const long recorded = residentKilobytes(daemon);
    EXPECT_GT(recorded, 0);

    // The first of each hundred scans the bus that is really there.
    for (int i = 0; i < kHundreds; ++i) {
        attachAndDetach();
        const HiddenBus hidden;
        for (int pair = 1; pair < 100; ++pair) attachAndDetach();
        // The log is in memory too.
        EXPECT_EQ(truncate("/data/log/kusd.log", 0), 0);
    }
    const long grown = residentKilobytes(daemon) - recorded;
    EXPECT_EQ(daemonPid(), daemon);
    for (int i = 0; i < kRecords; ++i) detach(kFirstId + i);
    printf(
        "resident memory: %ld KiB idle, %ld KiB with %d devices; %ld KiB more after %d others came "
        "and went, one in a hundred with a scan (target %ld: %s)\n",
        idle, recorded, kRecords, grown, kHundreds * 100, kMostGrowth,
        grown <= kMostGrowth ? "met" : kMissed);
    EXPECT_LE(grown, kMostGrowth);
}

std::string rowOf(std::vector<double> values, const char* unit) {
    const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
    return base::StringPrintf("%.2f %s (%.2f to %.2f)", median(values), unit, *least, *greatest);
}

/** Processor time of all its threads, in milliseconds. */
double processorTime(pid_t process) {
    clockid_t clock;
    timespec time;
    CHECK(clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &time) == 0);
    return time.tv_sec * 1e3 + time.tv_nsec / 1e6;
}

/** A stick that the rules refuse, unplugged for now. */
class RefusedStick : public DeviceBench {
  protected:
    void SetUp() override {
        DeviceBench::SetUp();
        setRules("blacklist", "<class>USB_CLASS_MASS_STORAGE</class>");
        stick_.emplace("stick", "--vendor 2385 --product 5734 --storage");
        port_ = contentOf(kController);
        EXPECT_EQ(stick_->decision().status, 0);
        unplug();
    }

    void plug() { connect(port_); }
    void unplug() { connect(""); }

    std::optional<Plugged> stick_;
    const pid_t daemon_ = daemonPid();

  private:
    static constexpr char kController[] = "/sys/kernel/config/usb_gadget/stick/UDC";

    /** Waits for the daemon to be done with it, and asks it nothing meanwhile. */
    void connect(const std::string& port) {
        const double before = processorTime(daemon_);
        writeFile(kController, port + "\n");
        EXPECT_TRUE(eventually([&] { return processorTime(daemon_) > before; }));
        for (double last = 0; last != processorTime(daemon_);) {
            last = processorTime(daemon_);
            std::this_thread::sleep_for(500ms);
        }
    }

    std::string port_;
};

TEST_F(RefusedStick, FromTheKernelsEventToTheWrite) {
    const std::string device = "device=\"" + stick_->entry() + "\"";
    const std::string interface = "device=\"" + stick_->entry() + ":1.0\"";
    std::vector<double> fromEvent, fromInterface;
    for (int i = 0; i < kPlugs; ++i) {
        KernelTrace trace({kernel_probes::kAdded, kernel_probes::kBound, kernel_probes::kWritten});
        plug();
        double added = 0, bound = 0, written = 0;
        for (const KernelTrace::Event& event : trace.take()) {
            if (event.name == "added" && event.arguments == interface) added = event.milliseconds;
            if (event.name == "bound" && event.arguments == device) bound = event.milliseconds;
            if (event.name == "written") written = event.milliseconds;
        }
        EXPECT_GT(bound, added);
        EXPECT_GT(written, bound);
        fromInterface.push_back(written - added);
        fromEvent.push_back(written - bound);
        unplug();
    }
    printf("from the kernel's event to the write of a refusal: %s\n",
           rowOf(fromEvent, "ms").c_str());
    printf("from the interface in sysfs: %s\n", rowOf(fromInterface, "ms").c_str());
}

TEST_F(RefusedStick, ProcessorTimeAndSystemCalls) {
    std::vector<double> times, calls;
    for (int i = 0; i < kPlugs; ++i) {
        const double before = processorTime(daemon_);
        plug();
        unplug();
        times.push_back(processorTime(daemon_) - before);
        KernelTrace trace(daemon_);
        plug();
        unplug();
        calls.push_back(trace.take().size());
    }
    printf("kusd, one plug and unplug: %s, %s\n", rowOf(times, "ms").c_str(),
           rowOf(calls, "calls").c_str());
}

}  // namespace
}  // namespace android::kus

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], android::kus::kCallerRole) == 0) {
        return android::kus::runCaller();
    }
    testing::InitGoogleMock(&argc, argv);
    android::ProcessState::self()->startThreadPool();
    return RUN_ALL_TESTS();
}
