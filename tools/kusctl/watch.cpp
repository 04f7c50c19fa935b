// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <android/kus/BnKUsbServiceCallback.h>
#include <binder/ProcessState.h>

#include <future>
#include <thread>

#include "kusctl.h"

namespace android::kus {
namespace {

constexpr char kHelp[] = R"(usage: kusctl watch [--json]

Prints a line for each USB device that the service records or that goes away, until interrupted.
When the service ends, it says so, waits for it to come back and goes on.

  --json  prints one object a line; its "event" is "added", "removed", "service-died" or
          "service-back"

Input devices come and go without a notice. A device that is refused because it is left to the
input subsystem is never recorded, but its removal is told.
)";

using namespace std::chrono_literals;

// For a moment the service manager still gives out a service that has just died.
constexpr auto kRetryInterval = 100ms;

bool json = false;

// One call a line: lines of several binder threads do not mix.
void print(const std::string& line) {
    puts(line.c_str());
    fflush(stdout);
}

void printEvent(const char* event, const std::string& text, const Json::Value& device = {}) {
    if (!json) return print(text);
    Json::Value value;
    value["event"] = event;
    if (!device.isNull()) value["device"] = device;
    print(jsonText(value, ""));
}

std::string describe(const DeviceInfo& device) {
    return std::to_string(device.deviceId) + "  " + std::to_string(device.vendorId) + ":" +
           std::to_string(device.productId) + "  " + printable(device.deviceName);
}

class Printer : public BnKUsbServiceCallback {
    binder::Status onDeviceAdded(const DeviceInfo& device) override {
        printEvent("added",
                   "added    " + describe(device) + "  " +
                       base::Join(classNames(toDevice(device)), ',') + "  " +
                       verdictText(device.status != 0) + ": " + printable(device.reason),
                   recordToJson(device));
        return binder::Status::ok();
    }

    // The record is the platform's own: no decision is in it.
    binder::Status onDeviceRemoved(const DeviceInfo& device) override {
        printEvent("removed", "removed  " + describe(device), identityToJson(device));
        return binder::Status::ok();
    }
};

class DeathNotice : public IBinder::DeathRecipient {
  public:
    void wait() { died_.get_future().wait(); }

  private:
    void binderDied(const wp<IBinder>&) override { died_.set_value(); }

    std::promise<void> died_;
};

/** Returns when the service has died; false when it was not there in the first place. */
bool watchUntilDeath(const sp<IKUsbService>& service, const sp<Printer>& printer, bool again) {
    if (service == nullptr) return false;
    const sp<DeathNotice> death = new DeathNotice();
    if (IInterface::asBinder(service)->linkToDeath(death) != OK) return false;
    if (!service->registerKusCallback(printer).isOk()) return false;
    if (again) printEvent("service-back", "the service is back");
    death->wait();
    printEvent("service-died", "the service died: waiting for it to come back");
    return true;
}

int run(int argc, char** argv) {
    while (nextOption(argc, argv, {{"json", no_argument, nullptr, 'j'}}) != -1) json = true;
    expectNoArguments(argc, argv);

    sp<IKUsbService> service = connectToService();
    ProcessState::self()->startThreadPool();
    const sp<Printer> printer = new Printer();
    for (bool again = false;; service = waitForService()) {
        if (watchUntilDeath(service, printer, again)) {
            again = true;
        } else {
            std::this_thread::sleep_for(kRetryInterval);
        }
    }
}

}  // namespace

const Command kWatchCommand = {"watch", "additions and removals as they happen", kHelp, run};

}  // namespace android::kus
