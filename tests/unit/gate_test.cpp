// SPDX-License-Identifier: Apache-2.0
#include "gate_test.h"

#include <linux/input.h>

#include "gate/input_sources.h"
#include "gate/kernel_events.h"
#include "gate/opening.h"
#include "gate/silencing.h"
#include "service_test.h"

namespace android::kus {
namespace {

const std::string kDevices = "/sys/bus/usb/devices/";
const std::string kDrivers = "/sys/bus/usb/drivers/";

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
    const std::vector<size_t> arrows = {KEY_UP, KEY_DOWN, KEY_LEFT, KEY_RIGHT, KEY_SELECT};
    const std::vector<size_t> xy = {ABS_X, ABS_Y}, direct = {INPUT_PROP_DIRECT};
    const std::vector<size_t> multiTouch = {ABS_MT_POSITION_X, ABS_MT_POSITION_Y};
    const struct {
        std::vector<size_t> keys, relative, absolute, properties;
        uint32_t sources;
    } cases[] = {
        {{}, {}, {}, {}, 0},
        {{KEY_A}, {}, {}, {}, kKeyboardSource},
        {arrows, {}, {}, {}, kKeyboardSource | kDpadSource},
        {{BTN_MOUSE}, {REL_X, REL_Y}, {}, {}, kMouseSource},
        {{BTN_MOUSE}, {REL_X}, {}, {}, 0},
        {{BTN_GAMEPAD}, {}, xy, {}, kKeyboardSource | kGamepadSource | kJoystickSource},
        {{BTN_TOUCH}, {}, xy, direct, kTouchscreenSource},
        {{BTN_TOUCH}, {}, xy, {}, kTouchpadSource},
        {{}, {}, multiTouch, direct, kTouchscreenSource},
        {{BTN_GAMEPAD}, {}, multiTouch, {}, kKeyboardSource | kGamepadSource},
        {{BTN_TOUCH, BTN_TOOL_PEN}, {}, xy, direct, kTouchscreenSource | kStylusSource},
        {{BTN_MISC}, {}, {}, {}, kKeyboardSource | kGamepadSource},
        {{BTN_JOYSTICK}, {}, {}, {}, kKeyboardSource | kGamepadSource},
        {{BTN_WHEEL}, {}, {}, {}, kKeyboardSource},
        {{BTN_DIGI}, {}, {}, {}, 0},
    };
    for (const auto& c : cases) {
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
    attach("1-1.2", "ef", {"03", "ff"});
    const auto description = describe(Device("1-1.2"));
    ASSERT_TRUE(description);
    EXPECT_EQ(text(description->info),
              "stick, id 12015, class 239, interfaces { 3, 255 }, 2385:5734, status 0, type 0, "
              "reason , category 0 ");
    EXPECT_THAT(description->interfaces, ElementsAre("1-1.2:1.0", "1-1.2:1.1"));
    EXPECT_FALSE(hasOnlyHids(description->info));

    const std::pair<std::string, const char*> odd[] = {{"busnum", "256"},
                                                       {"devnum", "256"},
                                                       {"bDeviceClass", "100"},
                                                       {"idVendor", "10000"},
                                                       {"idProduct", "10000"},
                                                       {"bNumInterfaces", "1"},
                                                       {"bNumInterfaces", "3"},
                                                       {"1-1.2:1.1/bInterfaceClass", "100"},
                                                       {"1-1.2:1.1/bInterfaceNumber", "0"}};
    for (const auto& [attribute, value] : odd) {
        const std::string file = kDevices + "1-1.2/" + attribute;
        const std::string good = readFile(file);
        for (const char* text :
             {value, "", "-1", "+5", "5x", "0x5", "5 1", "99999999999999999999"}) {
            writeFile(file, text);
            EXPECT_FALSE(describe(Device("1-1.2"))) << attribute << " is " << text;
        }
        fs::remove(file);
        EXPECT_FALSE(describe(Device("1-1.2"))) << "no " << attribute;
        writeFile(file, good);
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
    const std::pair<std::string, bool> names[] = {
        {"input0", true},           {"input1000000000", true}, {"input1000000001", false},
        {"input", false},           {"input-1", false},        {"input1x", false},
        {"input9999999999", false}, {"input12", true}};
    for (const auto& [name, described] : names) {
        const std::pair<const char*, const char*> attributes[] = {
            {"id/vendor", "17ef\n"},
            {"id/product", "6019\n"},
            {"name", "a mouse that is a touch screen\n"},
            {"capabilities/key", "400 10000 0 0 0 0\n"},
            {"capabilities/rel", "3\n"},
            {"capabilities/abs", "1 3\n"},
            {"properties", "2\n"}};
        for (const auto& [attribute, value] : attributes) {
            EXPECT_FALSE(describe(Device(name)) && attribute == std::string("id/product"));
            writeFile("/sys/class/input/" + name + "/" + attribute, value);
        }
        EXPECT_EQ(describe(Device(name)).has_value(), described) << name;
    }
    EXPECT_EQ(text(describe(Device("input12"))->info),
              "a mouse that is a touch screen, id 1000012, class 12290, interfaces {}, 6127:24601, "
              "status 0, type 1, reason , category 0 ");
}

// Nothing but the handle tells the two apart: they have the same name and interfaces.
TEST_F(GateTest, AnAnswerDoesNotOpenTheNextDeviceOfTheName) {
    writeFile("/sys/bus/usb/drivers_probe", "");
    attach("1-1", "00", {"08"});
    const Device first("1-1");
    const Texts interfaces = describe(first)->interfaces;
    closeDevice(first, interfaces);
    EXPECT_FALSE(isOpen(first, interfaces));
    openDevice(first, interfaces);
    EXPECT_TRUE(isOpen(first, interfaces));
    EXPECT_EQ(readFile("/sys/bus/usb/drivers_probe"), "1-1:1.0");

    detach("1-1");
    attach("1-1", "00", {"08"});
    closeDevice(Device("1-1"), interfaces);
    openDevice(first, interfaces);
    EXPECT_TRUE(first.directory.isGone());
    EXPECT_EQ(readFile(sysfsPath("1-1", "1-1:1.0/authorized")), "0\n");
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(GateTest, WhatTheKernelRefusesIsLoggedAndStaysClosed) {
    attach("1-1", "00", {"03", "03"});
    const Device device("1-1");
    writeFile(sysfsPath("1-1", "1-1:1.0/driver"), "");
    const Texts interfaces = describe(device)->interfaces;
    EXPECT_THAT(device.directory.entries(), Each(Not(StartsWith("."))));
    closeDevice(device, interfaces);
    writeFile(kDrivers + "usbhid/bind", "");
    openFor("usbhid", device, interfaces);
    EXPECT_EQ(readFile(kDrivers + "usbhid/bind"), "1-1:1.1") << "the other one has a driver";
    EXPECT_THAT(takeLog(), IsEmpty());
    openFor("hub", device, interfaces);
    EXPECT_EQ(readFile(sysfsPath("1-1", "1-1:1.1/authorized")), "0\n");
    openDevice(device, {"1-1:1.0", "1-1:1.2"});
    const std::string missing = " of 1-1: No such file or directory";
    EXPECT_LOG("E no driver for 1-1:1.1 of 1-1: Bad file descriptor",
               "E cannot write 1-1:1.2/authorized" + missing, "E no driver for 1-1:1.0" + missing,
               "E no driver for 1-1:1.2" + missing);

    addMouse("input2");
    const Device mouse("input2");
    fs::remove(inputPath("input2", "inhibited"));
    for (int i = 0; i < 2; ++i) setSilenced(mouse, true);
    EXPECT_LOG(StartsWith("W refused input devices stay usable: this kernel is older than 5.11"));
    fs::create_directory(inputPath("input2", "inhibited"));
    setSilenced(mouse, true);
    EXPECT_LOG("E cannot write inhibited of input2: Is a directory");
    fs::remove_all("/sys/class/input/input2");
    setSilenced(mouse, true);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(GateTest, ARemovalComesFirstAndAnAnswerAfterItDecidesNothing) {
    DeviceTable table;
    DeviceInfo info;
    info.deviceId = 1005;
    const auto first = device("1-1"), successor = device("1-1");
    table.add(first);
    EXPECT_TRUE(table.isToBeAskedAbout(first, info));
    table.remove("1-1");
    table.add(successor);
    table.setDecided(first);
    EXPECT_FALSE(table.isToBeAskedAbout(first, info));
    EXPECT_EQ(table.nextTask().removed->deviceId, 1005);
    EXPECT_EQ(table.nextTask().undecided, successor);
    // After lost events the same service is asked again, and told of what is gone.
    EXPECT_TRUE(table.isToBeAskedAbout(successor, info));
    table.setDecided(successor);
    table.decideAgain();
    EXPECT_EQ(table.nextTask().undecided, successor);
    table.remove("1-1");
    EXPECT_EQ(table.nextTask().removed->deviceId, 1005);
}

// Under ThreadSanitizer: what comes and goes meets what is asked.
TEST_F(GateTest, WhatIsPostponedIsLookedAtAgainAndLaterEachTime) {
    DeviceTable table;
    std::thread kernel([&] {
        for (int i = 0; i < 200; ++i) {
            table.add(device("1-1"));
            table.remove("1-1");
        }
        table.add(device("1-2"));
    });
    std::vector<std::chrono::steady_clock::time_point> looks;
    while (looks.size() < 3) {
        const auto undecided = table.nextTask().undecided;
        if (undecided == nullptr) continue;
        if (undecided->name == "1-2") looks.push_back(std::chrono::steady_clock::now());
        table.isToBeAskedAbout(undecided, {});
        table.postpone(undecided);
    }
    kernel.join();
    EXPECT_GE(looks[1] - looks[0], milliseconds(100));
    EXPECT_GE(looks[2] - looks[1], milliseconds(200));
    // The kernel has told something of it: at once, and then soon again.
    table.add(device("1-2"));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 2; ++i) table.postpone(table.nextTask().undecided);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(300));
}

TEST_F(GateTest, WhatItCannotStartWithIsOneLine) {
    const auto run = [](const char* arguments) {
        const int status = system((std::string(KUSGATE_PATH) + arguments + " 2>/data/log").c_str());
        return std::to_string(WEXITSTATUS(status)) + readFile("/data/log");
    };
    for (const char* arguments : {" --closed --open", " --open --closed"}) {
        EXPECT_THAT(run(arguments), MatchesRegex("2[^\n]*unknown argument --open: usage: kusgate "
                                                 "\\[--closed]\n"));
    }
    fs::create_directories(kUsbDevices);
    EXPECT_THAT(run(""), Not(HasSubstr("there is no")));
    fs::remove(kUsbDevices);
    writeFile(kUsbDevices, "no directory");
    EXPECT_THAT(run(""), MatchesRegex("1[^\n]*there is no /sys/bus/usb/devices: [^\n]*\n"));
}

}  // namespace
}  // namespace android::kus
