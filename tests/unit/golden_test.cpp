// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <regex>

#include "service_test.h"

namespace android::kus {
namespace {

/** Expects a text, its addresses aside, to be that of a file in data/. */
void expectGolden(const std::string& text, const std::string& name) {
    EXPECT_EQ(std::regex_replace(text, std::regex("0x[0-9a-f]{8,}"), "ADDRESS"),
              readFile(TEST_DATA "/" + name));
}

/** What the last parse has left, in a line. */
std::string rulesInForce() {
    return (xml_parse_status ? "accepted, mode " : "refused, mode ") + Util::getMode() +
           ", classes " + PrintToString(classList) + " " + PrintToString(classNameMap) +
           ", vendors " + PrintToString(vidPidMap) + ", greatest whole one " +
           std::to_string(lastWholeVendor.value_or(-1)) + ", status " + readFile(statusFilePath);
}

class Golden : public ServiceTest {
  protected:
    std::string dumped(const Texts& arguments = {}) {
        TemporaryFile file;
        dump(file.fd, arguments);
        return readFile(file.path);
    }
};

TEST_F(Golden, RulesFilesAndWhatIsMadeOfThem) {
    std::istringstream golden(readFile(TEST_DATA "/rules.txt"));
    std::string text;
    for (std::string line; std::getline(golden, line);) {
        if (line.empty() || line[0] == '#') text += line + "\n";
        if (line[0] != '<') continue;
        fs::remove(statusFilePath);
        loadRules(line);
        text += line + "\n" + takeLogText() + rulesInForce() + "\n";
    }
    expectGolden(text, "rules.txt");
}

TEST_F(Golden, LogOfRulesAndOfDevicesThatComeAndGo) {
    isUserDebugBuild = true;
    loadRules(R"(<usbconfig mode="blacklist">
        <class>USB_CLASS_MASS_STORAGE</class>
        <class>AINPUT_SOURCE_KEYBOARD</class>
        <vid vendorid="6121"/>
        <vid vendorid="7000"><pid>05734</pid></vid>
    </usbconfig>)");
    for (int i = 0; i < 2; ++i) service_->registerKusCallback(client_);
    addDevice("1-1", 2, 6121, 10);
    addInterface("1-1:1.0", 8);
    addDevice("1-2", 3);
    addInterface("1-2:1.0", 3, {"0003:046D:C31C.0001/input"});
    addEntry("usb1", "devspec=/soc/ssusb@a800000");
    writeFile("/sys/devices/platform/soc/a800000.ssusb/mode", "host");
    for (const std::string supply : {"usb", "dc"}) {
        writeFile("/sys/class/power_supply/" + supply + "/online", supply == "dc" ? "1" : "0");
    }
    DeviceInfo adapter = usbDevice(1002, {3, 8, 6}, 6121, 10);
    adapter.deviceClass = 8;
    const DeviceInfo keyboard = usbDevice(1003, {3}), keys = inputDevice(1000006, 0x101);
    const DeviceInfo mouseWithKeys = inputDevice(1000007, 0x2102, 7000, 5734);
    for (const DeviceInfo& device : {adapter, keyboard, keys, mouseWithKeys}) {
        EXPECT_FALSE(isAllowed(device));
    }
    deviceList();
    service_->resetUsbDevices(10);
    service_->resetUsbDevices(0);
    for (const DeviceInfo& device : {adapter, mouseWithKeys}) remove(device);
    service_->updateDeviceList(adapter, 1);
    service_->updateDeviceList(mouseWithKeys, -1);
    for (int i = 0; i < 3; ++i) service_->unregisterKusCallback(client_);
    expectGolden(takeLogText(), "log.txt");
}

TEST_F(Golden, ListsInputDevicesBeforeUsbDevices) {
    EXPECT_EQ(dumped(), "USB DEVICE INFO ");
    EXPECT_EQ(dumped({"x", "test"}), "");
    EXPECT_THAT(takeLog(), Contains("I args[0] isx"));

    loadRules("<usbconfig mode=\"whitelist\"><class>USB_CLASS_MASS_STORAGE</class></usbconfig>");
    // Classes twice, a restricted one, one without a name; then restricted ones alone; then none.
    isAllowed(usbDevice(1002, {8, 8, 9, 4, 255}, 2385, 5734));
    isAllowed(usbDevice(-1, {9, 255}));
    configMode = "default";
    mUsbDeviceInfoList[7] = std::make_unique<DeviceInfo>(usbDevice(7, {}));
    isAllowed(inputDevice(1000001, 0x2302));
    takeLog();
    expectGolden(dumped(), "device_dump.txt");
    expectGolden(takeLogText(), "device_dump_log.txt");
}

// The entries are given in this order because that of a directory is the file system's.
TEST_F(Golden, PrintsTheTopologyToTheByte) {
    addDevice("1-1", 2, 0x0424, 0x2514);
    addInterface("1-1:1.0", 9);
    addDevice("1-1.3", 5, 0x046d, 0xc31c);
    addInterface("1-1.3:1.0", 3, {"0003:046D:C31C.0001/input"});
    addDevice("1-2", 4, 0x0483, 0x5740);
    addInterface("1-2:1.0", 2, {"tty/ttyACM0"});
    addInterface("1-2:1.1", 8);
    scan(
        // A hub with a device behind it, a composite device, a root hub's interface, an orphan.
        "usb1 1-1 1-1:1.0 1-1.3 1-1.3:1.0 1-2 1-2:1.0 1-2:1.1 1-0:1.0 1-9:1.0 "
        // Before what they hang off; 12-11 has the bus and the port of 12-10.11, but is no hub.
        "12-11:1.0 12-11 12-10.11.3:1.0 12-10.11.3 12-10.11.4 12-10.11.4:1.0 12-10.11 12-10 usb12 "
        // Without their hub, their bus, their hub on their bus.
        "1-5.1 1-5.1:1.0 3-1 3-1:1.0 12-2.1 12-2.1:1.0");
    TemporaryFile file;
    takeLog();
    UsbDevice::print_tree(file.fd);
    UsbDevice::print_interfacelist(file.fd);
    UsbDevice::print_deviceid_map(file.fd);
    expectGolden(readFile(file.path), "topology_dump.txt");
    expectGolden(takeLogText(), "topology_dump_log.txt");
}

// "Entered while" names each file of an interface, in the file system's order: they have one each.
TEST_F(Golden, TraceTellsEveryStepOfAScan) {
    addDevice("1-1.3", 4);
    for (const char* directory :
         {"1-1.3:1.0/net/usb0", "1-1.3:1.1/tty/ttyACM0", "1-1.3:1.2/0003:1:2.3/input"}) {
        fs::create_directories(sysfsPath(directory, ""));
    }
    UsbDevice::verbose_trace = true;
    scan("usb2 1-1 1-1.2 1-1.3 1-1.3:1.0 1-1.3:1.1 1-1.3:1.2 2-0:0.0");
    expectGolden(takeLogText(), "scan_trace.txt");
}

TEST_F(Golden, TheTopologyIsScannedAnewAndPrintedOnRequest) {
    EXPECT_EQ(dumped({"test"}), "USB Test \n\n\nDeviceIdMap size0\n");
    addDevice("1-2", 4);
    addInterface("1-2:1.0", 8);
    // Without a bus entry there is no tree; the interfaces and the map are printed all the same.
    const auto hasMap = HasSubstr("\nDeviceIdMap size1\n \n DeviceId : 1004, Interface name : 1-2");
    EXPECT_THAT(dumped({"test", "ignored"}),
                AllOf(StartsWith("USB Test \n\nprint_interfacelist  usbinterface:"), hasMap));
    addEntry("usb1");
    EXPECT_THAT(dumped({"test"}), AllOf(StartsWith("USB Test \n   |__  Port : 2"), hasMap));
    EXPECT_TRUE(UsbDevice::device_list.empty());
    EXPECT_THAT(takeLog(), Contains(StartsWith("I dump_print_test called ")));
}

TEST_F(Golden, WithoutADescriptorForItsMemoryADumpIsPrintedStraight) {
    TemporaryFile file;
    dump(file.fd);
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none = {0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    service_->dump(file.fd, {});
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(readFile(file.path), "USB DEVICE INFO USB DEVICE INFO ") << "as with one";
}

/** A pipe that takes one page, whose reader does not read. */
struct StalledReader {
    StalledReader() {
        EXPECT_TRUE(base::Pipe(&readingEnd, &writingEnd));
        fcntl(writingEnd.get(), F_SETPIPE_SZ, 4096);
        fcntl(readingEnd.get(), F_SETFL, O_NONBLOCK);
    }
    base::unique_fd readingEnd, writingEnd;
};

// As many as there are binder threads, and more.
TEST_F(Golden, StalledReadersStopNobodyAndAreGivenUp) {
    addDevice("1-2", 4);
    for (int i = 0; i < 40; ++i) addInterface("1-2:1." + std::to_string(i), 8);
    const StalledReader readers[25];
    std::atomic<int> waiting = 25;
    std::vector<std::thread> threads;
    const auto start = std::chrono::steady_clock::now();
    for (const StalledReader& reader : readers) {
        threads.emplace_back([&] {
            dump(reader.writingEnd.get(), {"test"});
            --waiting;
        });
    }
    while (waiting > 4) usleep(1000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    isAllowed(usbDevice(1004, {8}));
    // One that reads again gets the rest, however late.
    usleep(500000);
    EXPECT_EQ(waiting, 4) << "they have some seconds";
    while (waiting > 0) {
        std::string text;
        for (const StalledReader& reader : readers) base::ReadFdToString(reader.readingEnd, &text);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(countOf("E dump is cut short: its reader takes nothing", takeLog()), 21);
}

}  // namespace
}  // namespace android::kus
