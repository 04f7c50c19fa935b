// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include <filesystem>

#include "kus_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using Numbers = std::vector<uint32_t>;
using Texts = std::vector<std::string>;

class SysfsScan : public KusTest {
  protected:
    ~SysfsScan() {
        UsbDevice::delete_all_nodes();
        UsbDevice::empty_list();
        UsbDevice::verbose_trace = false;
    }

    /** Scans entries, in this order, whatever they lack. */
    void scan(const Texts& names) {
        stderrOf([&] {
            for (const std::string& name : names) UsbDevice::inspect_bus_entry(name.c_str());
            UsbDevice::connect_devices();
        });
    }

    static usbdevice* device(const std::string& name) {
        for (usbdevice& d : UsbDevice::device_list) {
            if (d.name == name) return &d;
        }
        return nullptr;
    }

    static usbinterface* interface(const std::string& name) {
        for (usbinterface& i : UsbDevice::interface_list) {
            if (i.name == name) return &i;
        }
        return nullptr;
    }

    static usbbusnode* bus(const std::string& name) {
        usbbusnode* b = UsbDevice::bus_list;
        while (b != nullptr && b->name != name) b = b->next;
        return b;
    }
};

template <typename Record>
Texts chain(const Record* first) {
    Texts names;
    for (; first != nullptr; first = first->next_sibling) names.push_back(first->name);
    return names;
}

TEST_F(SysfsScan, EntriesAreToldApartByTheirNames) {
    enum Kind { BUS, DEVICE, INTERFACE, NOTHING, MESSAGE };
    const struct {
        const char* name;
        Kind kind;
    } cases[] = {
        {"usb1", BUS},          {"usb12", BUS},     {"1-1", DEVICE},         {"10-1.2", DEVICE},
        {"1-2:1.0", INTERFACE}, {"1-", DEVICE},     {"1-2:", NOTHING},       {"1-2:1", NOTHING},
        {"1-2:1.", NOTHING},    {"1-2:x", NOTHING}, {"1-2:1.x", NOTHING},    {".", NOTHING},
        {"..", NOTHING},        {".x", MESSAGE},    {"usb", MESSAGE},        {"usbmon", MESSAGE},
        {"uevent", MESSAGE},    {"us1", MESSAGE},   {"lost+found", MESSAGE}, {"Usb1", MESSAGE}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string errors = stderrOf([&] { UsbDevice::inspect_bus_entry(c.name); });
        EXPECT_EQ(bus(c.name) != nullptr, c.kind == BUS);
        EXPECT_EQ(device(c.name) != nullptr, c.kind == DEVICE);
        EXPECT_EQ(interface(c.name) != nullptr, c.kind == INTERFACE);
        if (c.kind < NOTHING) {
            EXPECT_THAT(errors, Not(HasSubstr("ignoring")));
        } else {
            const std::string message = "ignoring '" + std::string(c.name) + "'\n";
            EXPECT_EQ(errors, c.kind == MESSAGE ? message : "");
        }
    }
}

TEST_F(SysfsScan, IntegerAttributes) {
    const struct {
        const char* text;
        int base;
        unsigned int value;
    } cases[] = {{"0x1a\n", 16, 26},
                 {"0x1a\n", 10, 0},
                 {"1a\n", 16, 26},
                 {" 12 MHz", 10, 12},
                 {"", 16, 0},
                 {"none\n", 10, 0},
                 {"4294967295", 10, 4294967295},
                 // Eleven bytes are read.
                 {"0x00000001ff", 16, 0x1f}};
    for (const auto& c : cases) {
        writeFile(sysfsPath("1-1", "value"), c.text);
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "value", c.base), c.value) << c.text;
    }
    std::filesystem::create_directory(sysfsPath("1-1", "power"));
    EXPECT_EQ(stderrOf([] {
                  EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "none", 10), 0u);
                  EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "power", 10), 0u);
              }),
              "/sys/bus/usb/devices/1-1/none: No such file or directory\n"
              "/sys/bus/usb/devices/1-1/power: Is a directory\n");
}

TEST_F(SysfsScan, EachAttributeTellsWhyItsEntryCannotBeRead) {
    const std::string path = sysfsPath("1-1:1.0", "bAlternateSetting: ");
    const std::string entry = "/sys/bus/usb/devices/1-1:1.0";
    writeFile(entry, "");
    const auto read = [] { UsbDevice::inspect_bus_entry("1-1:1.0"); };
    EXPECT_THAT(stderrOf(read), testing::StartsWith(path + "Not a directory\n"));
    std::filesystem::remove(entry);
    std::filesystem::create_symlink("/nowhere", entry);
    EXPECT_THAT(stderrOf(read), testing::StartsWith(path + "No such file or directory\n"));
}

TEST_F(SysfsScan, TextAttributes) {
    const std::string fits(63, 'x');
    const struct {
        std::string text, value;
    } cases[] = {{"Foo\n", "Foo"},          {"Foo", "Foo"},   {"\n\n", ""},
                 {"A\nB\n", "A B"},         {" a ", " a "},   {"", ""},
                 {"\nA\n\nB\n\n", " A  B"}, {fits, fits},     {fits + "\n", ""},
                 {fits + "x", ""},          {fits + fits, ""}};
    char value[64] = "old";
    for (const auto& c : cases) {
        writeFile(sysfsPath("1-1", "text"), c.text);
        UsbDevice::read_sysfs_file_string("1-1", "text", value, sizeof(value));
        EXPECT_EQ(value, c.value) << testing::PrintToString(c.text);
    }
    for (const std::string& entry : {std::string("1-2"), std::string(4096, 'x')}) {
        strcpy(value, "old");
        EXPECT_EQ(
            stderrOf([&] { UsbDevice::read_sysfs_file_string(entry.c_str(), "text", value, 64); }),
            "");
        EXPECT_STREQ(value, "");
    }
}

// Every number reads "10", which is 16 where the base is so.
TEST_F(SysfsScan, RecordsHoldTheAttributes) {
    Attributes attributes = {{"configuration", "10 name"},
                             {"bMaxPower", "500mA"},
                             {"manufacturer", "Maker"},
                             {"product", "A thing"},
                             {"serial", "0001"},
                             {"version", " 2.00"},
                             {"speed", "480"},
                             {"driver", "a_driver"}};
    for (const std::string& name : base::Split(
             "bAlternateSetting bConfigurationValue bDeviceClass bDeviceProtocol bDeviceSubClass "
             "bInterfaceClass bInterfaceNumber bInterfaceProtocol bInterfaceSubClass "
             "bMaxPacketSize0 bNumConfigurations bNumEndpoints bNumInterfaces bcdDevice "
             "bmAttributes devnum idProduct idVendor maxchild rx_lanes tx_lanes",
             " ")) {
        attributes[name] = "10";
    }
    for (const char* name : {"usb12", "3-1.2", "3-1.2:4.15"}) addEntry(name, attributes);
    std::filesystem::create_symlink("/sys/bus/drivers/xhci-hcd", "/sys/devices/controller/driver");
    EXPECT_EQ(stderrOf([] {
                  for (const char* name : {"usb12", "3-1.2", "3-1.2:4.15"}) {
                      UsbDevice::inspect_bus_entry(name);
                  }
              }),
              "");
    const usbbusnode& b = *bus("usb12");
    EXPECT_EQ(b.busnum, 12u);
    EXPECT_THAT((Numbers{b.bDeviceClass, b.idProduct, b.idVendor}), Each(16));
    EXPECT_THAT((Numbers{b.devnum, b.maxchild, b.rx_lanes, b.tx_lanes}), Each(10));
    EXPECT_THAT((Texts{b.speed, b.driver}), ElementsAre("480", "xhci-hcd"));

    const usbdevice& d = *device("3-1.2");
    EXPECT_THAT((Numbers{d.bDeviceClass, d.bDeviceProtocol, d.bDeviceSubClass, d.bMaxPacketSize0,
                         d.bNumInterfaces, d.bcdDevice, d.bmAttributes, d.idProduct, d.idVendor}),
                Each(16));
    EXPECT_THAT((Numbers{d.bNumConfigurations, d.configuration, d.devnum, d.maxchild, d.rx_lanes,
                         d.tx_lanes}),
                Each(10));
    EXPECT_EQ(d.bConfigurationValue, 0u);
    EXPECT_THAT(
        (Texts{d.bMaxPower, d.manufacturer, d.product, d.serial, d.version, d.speed, d.driver}),
        ElementsAre("500mA", "Maker", "A thing", "0001", " 2.00", "480", "a_driver"));

    const usbinterface& i = *interface("3-1.2:4.15");
    EXPECT_THAT((Numbers{i.configuration, i.ifnum}), ElementsAre(4, 15));
    EXPECT_EQ(i.bAlternateSetting, 10u);
    EXPECT_THAT((Numbers{i.bInterfaceClass, i.bInterfaceNumber, i.bInterfaceProtocol,
                         i.bInterfaceSubClass, i.bNumEndpoints}),
                Each(16));
    EXPECT_STREQ(i.driver, "a_driver");
    EXPECT_THAT(takeLog(), testing::IsEmpty());
}

TEST_F(SysfsScan, PortChain) {
    const struct {
        const char* name;
        uint32_t bus, port, parentPort;
    } cases[] = {{"1-2", 1, 2, 0},         {"1-2.3", 1, 3, 2}, {"1-2.3.4", 1, 4, 3},
                 {"12-10.11", 12, 11, 10}, {"1", 1, 0, 0},     {"1-2.x", 1, 2, 0}};
    for (const auto& c : cases) {
        scan({c.name});
        const usbdevice& d = *device(c.name);
        EXPECT_THAT((Numbers{d.busnum, d.portnum, d.parent_portnum}),
                    ElementsAre(c.bus, c.port, c.parentPort));
    }
}

TEST_F(SysfsScan, LongNamesAreCut) {
    const std::string fits = "1-1" + std::string(251, '0');
    const std::string bus = "usb" + std::string(252, '0');
    const std::string interface = "1-1:1." + std::string(249, '0');
    for (const std::string& entry : {fits, fits + "0", bus, interface}) {
        addEntry(entry, {{"bConfigurationValue", "2"}});
        testing::internal::CaptureStdout();
        scan({entry});
        const std::string warning =
            "warning: '" + entry + "' truncated to '" + entry.substr(0, 254) + "'\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  entry == bus || entry == interface ? warning : "");
    }
    Numbers configurations;
    for (const usbdevice& d : UsbDevice::device_list) {
        EXPECT_EQ(d.name, fits);
        configurations.push_back(d.bConfigurationValue);
    }
    EXPECT_THAT(configurations, ElementsAre(0, 2));
}

TEST_F(SysfsScan, DevicesHangOffTheirHubOrBus) {
    scan({"2-1", "1-1.3.1", "usb1", "1-3", "1-1.3", "1-1.3.2", "usb2", "1-1", "1-3.1", "1-5.1",
          "3-1", "2-3.1"});
    // In list order, which is the order of the scan.
    EXPECT_THAT(chain(bus("usb1")->first_child), ElementsAre("1-3", "1-1"));
    EXPECT_THAT(chain(bus("usb2")->first_child), ElementsAre("2-1"));
    EXPECT_THAT(chain(device("1-1")->first_child), ElementsAre("1-1.3"));
    EXPECT_THAT(chain(device("1-1.3")->first_child), ElementsAre("1-1.3.1", "1-1.3.2"));
    // On the bus and port that the parent of 1-1.3.1 has, but not of its name.
    EXPECT_THAT(chain(device("1-3")->first_child), ElementsAre("1-3.1"));
    EXPECT_EQ(device("1-1.3.2")->parent, device("1-1.3"));
    for (const char* unlinked : {"1-1", "1-5.1", "3-1", "2-3.1"}) {
        EXPECT_EQ(device(unlinked)->parent, nullptr) << unlinked;
    }
}

TEST_F(SysfsScan, InterfacesHangOffTheirDevice) {
    scan({"usb1", "usb2", "1-1:1.1", "1-0:1.0", "1-1", "1-1.2", "1-1:1.0", "1-1.2:1.0", "1-9:1.0",
          "2-0:0.0", "2-0:0.1"});
    EXPECT_THAT(chain(device("1-1")->first_interface), ElementsAre("1-1:1.1", "1-1:1.0"));
    EXPECT_THAT(chain(device("1-1.2")->first_interface), ElementsAre("1-1.2:1.0"));
    EXPECT_EQ(interface("1-1.2:1.0")->parent, device("1-1.2"));
    // A bus takes an interface by the digit after the colon, so a root hub's own is never taken.
    EXPECT_EQ(bus("usb1")->first_interface, nullptr);
    EXPECT_THAT(chain(bus("usb2")->first_interface), ElementsAre("2-0:0.0", "2-0:0.1"));
    for (const char* orphan : {"1-0:1.0", "1-9:1.0", "2-0:0.0", "2-0:0.1"}) {
        EXPECT_EQ(interface(orphan)->parent, nullptr) << orphan;
    }
}

TEST_F(SysfsScan, TeardownFreesEveryList) {
    scan({"usb1", "usb2", "1-1", "1-1.2", "1-1:1.0"});
    takeLog();
    UsbDevice::delete_all_nodes();
    UsbDevice::empty_list();
    EXPECT_THAT(takeLog(), ElementsAre("I deleting the list using deleteAllnode",
                                       "I ***Entered empty_list******"));
    EXPECT_TRUE(UsbDevice::device_list.empty());
    EXPECT_TRUE(UsbDevice::interface_list.empty());
    EXPECT_EQ(UsbDevice::bus_list, nullptr);
}

TEST_F(SysfsScan, TraceTellsEveryStep) {
    addDevice("1-1.2", 3);
    addDevice("1-1.3", 4);
    addInterface("1-1.3:1.0", 8);
    UsbDevice::verbose_trace = true;
    scan({"usb1", "1-1", "1-1.2", "1-1.3", "1-1.3:1.0"});
    const std::string offer = "I calling assign_interface_to_parent usbdevice:";
    EXPECT_THAT(
        takeLog(),
        ElementsAre(
            "I calling append_busnode usb1", "I  add_usb_device  enter1-1",
            "I  add_usb_device  enter1-1.2", "I  add_usb_device  enter1-1.3",
            "I  add_usb_interface  enter1-1.3:1.0",
            "I warning add_usb_interface d_name1-1.3:1.0truncated to 1-1.3:1.0",
            "I calling connect_devices entered", "I calling assign_dev_to_bus usbdevice:1-1",
            offer + "1-1and usbinterface:1-1.3:1.0",
            "I calling assign_dev_to_parent usbdevice:1-1.2",
            "I calling assign_dev_to_parent entered with usbdevice:1-1.2",
            "I calling assign_dev_to_parent usbdevice pd:1-1",
            offer + "1-1.2and usbinterface:1-1.3:1.0",
            "I calling assign_dev_to_parent usbdevice:1-1.3",
            "I calling assign_dev_to_parent entered with usbdevice:1-1.3",
            "I calling assign_dev_to_parent usbdevice pd:1-1",
            "I calling assign_dev_to_parent usbdevice  append_dev_sibling pd:1-1",
            offer + "1-1.3and usbinterface:1-1.3:1.0",
            "I creating object and populating map  usbinterface:1-1.3:1.0 and class: 8",
            "I path of dir:/sys/bus/usb/devices/1-1.3:1.0", "I Other category default to none",
            "I creating object and populating \t parent vendorid : 4660, productid: 22136,parent "
            "path: 1-1.3,manufacturer: ,product: ,deviceId:1004",
            "I creating object and populating category_pathsdcard and category:4 interface "
            "path:1-1.3:1.0"));
}

}  // namespace
}  // namespace android::kus
