// SPDX-License-Identifier: Apache-2.0
#include "gate_test.h"

#include <linux/input.h>

#include <filesystem>
#include <thread>

#include "gate/input_sources.h"
#include "gate/kernel_events.h"
#include "gate/opening.h"

namespace android::kus {
namespace {

using testing::ElementsAre;
namespace fs = std::filesystem;

const std::string kDevices = "/sys/bus/usb/devices/";

TEST_F(GateTest, AnEventIsItsFields) {
    using namespace std::string_view_literals;
    const KernelEvent event = parseKernelEvent(
        "bind@/devices/x/3-1\0ACTION=bind\0DEVPATH=/devices/x/3-1\0SUBSYSTEM=usb\0"
        "DEVTYPE=usb_device\0"sv);
    EXPECT_EQ(event.action + event.subsystem + event.devtype + event.name, "bindusbusb_device3-1");
    // Without a header, cut off, without a slash, with fields that are none.
    const KernelEvent odd =
        parseKernelEvent("\0\0SUBSYSTEM=\0=x\0NAME\0DEVPATH=input4\0ACTION=a"sv);
    EXPECT_EQ(odd.action + odd.subsystem + odd.devtype + odd.name, "ainput4");
}

TEST_F(GateTest, InputSourcesAreThePlatforms) {
    struct Case {
        std::vector<size_t> keys, relative, absolute, properties;
        uint32_t sources;
    };
    const std::vector<size_t> arrows = {KEY_UP, KEY_DOWN, KEY_LEFT, KEY_RIGHT, KEY_SELECT};
    const std::vector<size_t> xy = {ABS_X, ABS_Y};
    const std::vector<size_t> multiTouch = {ABS_MT_POSITION_X, ABS_MT_POSITION_Y};
    const Case cases[] = {
        {{}, {}, {}, {}, 0},
        {{KEY_A}, {}, {}, {}, kKeyboardSource},
        {arrows, {}, {}, {}, kKeyboardSource | kDpadSource},
        {{BTN_MOUSE}, {REL_X, REL_Y}, {}, {}, kMouseSource},
        {{BTN_MOUSE}, {REL_X}, {}, {}, 0},
        {{BTN_GAMEPAD}, {}, xy, {}, kKeyboardSource | kGamepadSource | kJoystickSource},
        {{BTN_TOUCH}, {}, xy, {INPUT_PROP_DIRECT}, kTouchscreenSource},
        {{BTN_TOUCH}, {}, xy, {}, kTouchpadSource},
        {{}, {}, multiTouch, {INPUT_PROP_DIRECT}, kTouchscreenSource},
        {{BTN_GAMEPAD}, {}, multiTouch, {}, kKeyboardSource | kGamepadSource},
        {{BTN_TOUCH, BTN_TOOL_PEN},
         {},
         xy,
         {INPUT_PROP_DIRECT},
         kTouchscreenSource | kStylusSource},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        InputCapabilities capabilities;
        for (size_t bit : c.keys) capabilities.keys.set(bit);
        for (size_t bit : c.relative) capabilities.relative.set(bit);
        for (size_t bit : c.absolute) capabilities.absolute.set(bit);
        for (size_t bit : c.properties) capabilities.properties.set(bit);
        EXPECT_EQ(inputSources(capabilities), c.sources);
    }
}

TEST_F(GateTest, AUsbDeviceIsDescribedWhenItIsComplete) {
    attach("1-1.2", "00", {"03", "ff"});
    const auto description = describe(Device("1-1.2"));
    ASSERT_TRUE(description);
    EXPECT_EQ(description->info.deviceId, 1005);
    EXPECT_EQ(description->info.vendorId, 0x0951);
    EXPECT_EQ(description->info.deviceName, "stick");
    EXPECT_THAT(description->info.interfaceClassList, ElementsAre(3, 255));
    EXPECT_THAT(description->interfaces, ElementsAre("1-1.2:1.0", "1-1.2:1.1"));
    EXPECT_FALSE(hasOnlyHids(description->info));

    const std::pair<std::string, std::vector<std::string>> odd[] = {
        {"devnum", {"", "-1", "+5", "5x", "256", "99999999999999999999"}},
        {"idVendor", {"", "-951", "0x951", "10000", "95 1"}},
        {"bNumInterfaces", {"", "1", "3", "-2", "2 3"}},
        {"1-1.2:1.1/bInterfaceClass", {"", "100", "-1", "hub"}},
        {"1-1.2:1.1/bInterfaceNumber", {"", "0"}}};
    for (const auto& [attribute, values] : odd) {
        const std::string path = kDevices + "1-1.2/" + attribute;
        const std::string good = readFile(path);
        for (const std::string& value : values) {
            writeFile(path, value);
            EXPECT_FALSE(describe(Device("1-1.2"))) << attribute << " is " << value;
        }
        fs::remove(path);
        EXPECT_FALSE(describe(Device("1-1.2"))) << "no " << attribute;
        writeFile(path, good);
    }
    // A name that cannot be shown, or sent, is no reason to leave the device undecided.
    for (const char* name : {"", "\n", "\xff\xff\xff"}) {
        writeFile(kDevices + "1-1.2/product", name);
        EXPECT_EQ(describe(Device("1-1.2"))->info.deviceName, "1-1.2");
    }
}

TEST_F(GateTest, OnlyHubsAndTheMachinesOwnInputDevicesAreNotAskedAbout) {
    attach("1-1", "09", {"09"});
    attach("1-2", "09", {"09", "08"});
    attach("1-3", "00", {"09"});
    for (const char* bus : {"0003", "0005", "0019", "", "x"}) {
        const std::string name = std::string("/sys/class/input/input") + bus;
        writeFile(name + "/id/bustype", bus);
        writeFile(name + "/uevent", "");
    }
    const std::map<std::string, bool> expected = {
        {"1-1", false},       {"1-2", true},       {"1-3", true},
        {"1-4", false},       {"input0003", true}, {"input0005", true},
        {"input0019", false}, {"input", false},    {"inputx", false}};
    for (const auto& [name, asked] : expected) EXPECT_EQ(isAskedAbout(Device(name)), asked) << name;
}

TEST_F(GateTest, AnInputDeviceHasItsNumberAsItsId) {
    const std::string base = "/sys/class/input/";
    for (const char* name : {"input12", "input", "input-1", "input1x", "input9999999999"}) {
        writeFile(base + name + "/id/vendor", "17ef\n");
        writeFile(base + name + "/id/product", "6019\n");
        writeFile(base + name + "/name", "a mouse\n");
        writeFile(base + name + "/capabilities/key", "1f0000 0 0 0 0\n");
        writeFile(base + name + "/capabilities/rel", "3 zz\n");
        EXPECT_EQ(describe(Device(name)).has_value(), name == std::string("input12")) << name;
    }
    writeFile(base + "input12/capabilities/rel", "903\n");
    const DeviceInfo info = describe(Device("input12"))->info;
    EXPECT_EQ(info.deviceId, 1000012);
    EXPECT_EQ(info.deviceClass, static_cast<int>(kMouseSource));
    EXPECT_EQ(info.deviceName, "a mouse");
    EXPECT_EQ(info.deviceType, 1);
}

// Nothing but the handle tells the two apart: they have the same name and interfaces.
TEST_F(GateTest, AnAnswerDoesNotOpenTheNextDeviceOfTheName) {
    writeFile("/sys/bus/usb/drivers_probe", "");
    attach("1-1", "00", {"08"});
    const Device first("1-1");
    const std::vector<std::string> interfaces = describe(first)->interfaces;
    closeDevice(first, interfaces);
    EXPECT_FALSE(isOpen(first, interfaces));
    openDevice(first, interfaces);
    EXPECT_TRUE(isOpen(first, interfaces));
    EXPECT_EQ(readFile("/sys/bus/usb/drivers_probe"), "1-1:1.0");

    detach("1-1");
    attach("1-1", "00", {"08"}, 6);
    closeDevice(Device("1-1"), interfaces);
    openDevice(first, interfaces);
    EXPECT_TRUE(first.directory.isGone());
    EXPECT_EQ(readFile(sysfsPath("1-1", "1-1:1.0/authorized")), "0\n");
    EXPECT_THAT(takeLog(), testing::IsEmpty());
}

TEST_F(GateTest, RemovalsComeFirstAndFailuresLater) {
    DeviceTable table;
    DeviceInfo info;
    info.deviceId = 1005;
    const auto first = device("1-1"), second = device("1-2"), successor = device("1-1");
    table.add(first);
    table.add(second);
    EXPECT_EQ(table.nextTask().undecided, first);
    EXPECT_TRUE(table.isToBeAskedAbout(first, info));
    table.postpone(first);
    EXPECT_EQ(table.nextTask().undecided, second);
    table.setDecided(second);

    table.remove("1-1");
    table.add(successor);
    // The answer about the one that is gone.
    table.setDecided(first);
    EXPECT_FALSE(table.isToBeAskedAbout(first, info));
    EXPECT_EQ(table.nextTask().removed->deviceId, 1005);
    EXPECT_EQ(table.nextTask().undecided, successor);
    table.setDecided(successor);

    table.wake();
    const DeviceTable::Task none = table.nextTask();
    EXPECT_TRUE(!none.removed && none.undecided == nullptr);
    table.startAgain();
    EXPECT_EQ(table.nextTask().undecided, successor);
    // After lost events the same service is asked again, and told of what is gone.
    EXPECT_TRUE(table.isToBeAskedAbout(successor, info));
    table.setDecided(successor);
    table.setDecided(second);
    table.decideAgain();
    EXPECT_EQ(table.nextTask().undecided, successor);
    table.remove("1-1");
    EXPECT_EQ(table.nextTask().removed->deviceId, 1005);
}

// Under ThreadSanitizer: what comes and goes meets what is asked.
TEST_F(GateTest, WhatIsPostponedIsLookedAtAgain) {
    DeviceTable table;
    std::thread kernel([&] {
        for (int i = 0; i < 200; ++i) {
            table.add(device("1-1"));
            table.remove("1-1");
        }
        table.add(device("1-2"));
    });
    int looks = 0;
    while (looks < 3) {
        const auto undecided = table.nextTask().undecided;
        if (undecided == nullptr) continue;
        if (undecided->name == "1-2") ++looks;
        table.isToBeAskedAbout(undecided, {});
        table.postpone(undecided);
    }
    kernel.join();
    EXPECT_TRUE(table.has("1-2"));
}

}  // namespace
}  // namespace android::kus
