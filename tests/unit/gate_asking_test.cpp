// SPDX-License-Identifier: Apache-2.0
#include <android/kus/BnKUsbService.h>

#include <deque>
#include <functional>
#include <optional>

#include "fake_service_manager.h"
#include "gate/asking.h"
#include "gate_test.h"

namespace android::kus {
namespace {

const auto kAlive = [] { return true; };

/** The service as the gate sees it from another process. */
class FakeService : public BnKUsbService {
  public:
    /** Run when the gate looks whether this is alive, before each of its tasks. */
    std::deque<std::function<bool()>> turns;
    /** Nothing for a call that fails. */
    std::deque<std::optional<bool>> answers;
    std::deque<status_t> links;
    sp<DeathRecipient> recipient;
    Texts calls;

    status_t linkToDeath(const sp<DeathRecipient>& linked, void*, uint32_t) override {
        recipient = linked;
        return take(&links).value_or(OK);
    }
    bool isBinderAlive() const override {
        const auto turn = take(&const_cast<FakeService*>(this)->turns);
        if (!turn) endLoop();
        return (*turn)();
    }
    binder::Status isDeviceAllowed(const DeviceInfo& device, bool* allowed) override {
        calls.push_back("asked " + std::to_string(device.deviceId));
        const auto answer = take(&answers).value();
        *allowed = answer.value_or(true);
        return binder::Status::fromStatusT(answer ? OK : FAILED_TRANSACTION);
    }
    binder::Status updateDeviceList(const DeviceInfo& device, int32_t status) override {
        calls.push_back("removed " + std::to_string(device.deviceId + status));
        return binder::Status::ok();
    }
    binder::Status registerKusCallback(const sp<IKUsbServiceCallback>&) override { return {}; }
    binder::Status unregisterKusCallback(const sp<IKUsbServiceCallback>&) override { return {}; }
    binder::Status getDeviceList(std::vector<DeviceInfo>*) override { return {}; }
    binder::Status resetUsbDevices(int32_t) override { return {}; }

  private:
    template <typename T>
    static std::optional<T> take(std::deque<T>* items) {
        if (items->empty()) return std::nullopt;
        const T first = items->front();
        items->pop_front();
        return first;
    }
};

class GateAsking : public GateTest {
  protected:
    GateAsking() { serviceManager()->added = service_; }

    void run(const std::deque<std::function<bool()>>& turns,
             const std::deque<std::optional<bool>>& answers, bool closed = false) {
        service_->turns = turns;
        service_->answers = answers;
        runLoop([&] { askAboutDevices(&table_, closed); });
        EXPECT_THAT(service_->answers, IsEmpty());
    }

    const sp<FakeService> service_ = new FakeService();
    DeviceTable table_;
};

TEST_F(GateAsking, AnswersAreActedOnAndRemovalsTold) {
    attach("1-1", "00", {"08", "0a"});
    attach("1-2", "09", {"09"});
    addMouse("input12");
    for (const char* name : {"1-1", "1-2", "input12"}) table_.add(device(name));
    const auto removal = [&] {
        table_.remove("1-1");
        return true;
    };
    run({kAlive, kAlive, kAlive, removal}, {true, false});
    EXPECT_THAT(service_->calls, ElementsAre("asked 12015", "asked 1000012", "removed 12015"));
    EXPECT_EQ(isInhibited("input12"), '1');
    EXPECT_LOG("I connected to kusbservice", "I allowed 1-1 0951:1666 8,10",
               "I refused input12 17ef:6019 0x2002");
}

TEST_F(GateAsking, ANewServiceIsAskedAboutEverything) {
    attach("1-1", "00", {"08"});
    table_.add(device("1-1"));
    service_->links = {DEAD_OBJECT};
    const auto death = [&] {
        service_->recipient->binderDied(service_.get());
        return true;
    };
    run({kAlive, death, [] { return false; }, kAlive}, {true, true});
    EXPECT_THAT(service_->calls, ElementsAre("asked 12015", "asked 12015"));
    EXPECT_LOG("I connected to kusbservice", "I allowed 1-1 0951:1666 8", "I lost kusbservice",
               "I connected to kusbservice", "I allowed 1-1 0951:1666 8");
}

TEST_F(GateAsking, WhatFailsIsTriedAgain) {
    // Not complete, at first.
    attach("1-1", "00", {"08"});
    attach("1-2", "00", {"08"}, 16);
    attach("1-3", "00", {"08"}, 17);
    const std::string number = sysfsPath("1-1", "devnum");
    for (const char* name : {"1-1", "1-2", "1-3"}) table_.add(device(name));
    writeFile(number, "");
    const auto complete = [&] {
        writeFile(number, "15");
        return true;
    };
    run({kAlive, kAlive, complete, kAlive, kAlive}, {std::nullopt, true, true, true});
    EXPECT_THAT(service_->calls,
                ElementsAre("asked 12016", "asked 12017", "asked 12015", "asked 12016"));
    EXPECT_LOG("I connected to kusbservice", StartsWith("E no answer about 1-2: "),
               "I allowed 1-3 0951:1666 8", "I allowed 1-1 0951:1666 8",
               "I allowed 1-2 0951:1666 8");
}

// What is open was opened by an earlier answer, or by the kernel.
TEST_F(GateAsking, AnAnswerOpensAndCloses) {
    const struct {
        const char* interfaceClass;
        bool wasOpen;
        std::deque<std::optional<bool>> answers;
        bool isOpen;
        const char *probed = "", *given = "";
    } cases[] = {
        {"08", false, {true}, true, "1-1:1.0"},
        {"08", false, {false}, false},
        {"08", true, {false}, false},
        {"08", true, {std::nullopt}, true},
        {"03", false, {true}, true, "1-1:1.0"},
        // Left to its inputs, vendor-specific, or unknown.
        {"03", false, {false, false}, true, "", "1-1:1.0"},
        {"03", false, {false, true}, true, "1-1:1.0", "1-1:1.0"},
        {"03", false, {false, std::nullopt}, false, "", "1-1:1.0"},
        {"03", true, {false}, true},
    };
    table_.add(device("input7"));
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        for (const char* name : {"input7", "input12"}) addMouse(name);
        addMouse("input13", "0019");
        writeFile("/sys/bus/usb/drivers_probe", "");
        writeFile("/sys/bus/usb/drivers/usbhid/bind", "");
        attach("1-1", "00", {c.interfaceClass});
        writeFile(sysfsPath("1-1", "1-1:1.0/authorized"), c.wasOpen ? "1" : "0");
        table_.add(device("1-1"));
        run({kAlive}, c.answers, /*closed=*/true);
        // The last line, but for that about a call that failed.
        const Texts log = takeLog();
        if (c.answers.back()) {
            EXPECT_THAT(log.back(), StartsWith(*c.answers.back() ? "I allowed " : "I refused "));
        }
        EXPECT_EQ(isAuthorized("1-1"), c.isOpen ? '1' : '0');
        EXPECT_EQ(readFile("/sys/bus/usb/drivers_probe"), c.probed);
        EXPECT_EQ(readFile("/sys/bus/usb/drivers/usbhid/bind"), c.given);
        // What the driver has made is silent before it is asked about.
        EXPECT_EQ(isInhibited("input12"), c.given[0] != '\0' ? '1' : '0');
        EXPECT_EQ(isInhibited("input7"), '0');
        EXPECT_EQ(isInhibited("input13"), '0');
        detach("1-1");
        table_.remove("1-1");
    }
}

}  // namespace
}  // namespace android::kus
