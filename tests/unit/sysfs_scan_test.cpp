// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>

#include "kus_test.h"

namespace android::kus {
namespace {

using Numbers = std::vector<uint32_t>;

template <typename Record>
std::string chain(const Record* first, Record* Record::*next = &Record::next_sibling) {
    std::string names;
    for (; first != nullptr; first = first->*next) names += std::string(" ") + first->name;
    return names;
}

template <typename Record>
std::string namesIn(record_list<Record>& records) {
    std::string names;
    for (const Record& record : records) names += std::string(" ") + record.name;
    return names;
}

class SysfsScan : public KusTest {};

TEST_F(SysfsScan, EntriesAreToldApartByTheirNames) {
    const std::string errors = scan(
        "usb1 usb12 1-1.1 1-1 1-1.3 90-1.2 1- 1-2:1.0 1-2: 1-2:1 1-2:1. 1-2:x 1-2:1.x 1-0:1.0 "
        "12-0:0.0 12-0:0.1 . .. .x usb usb/ usb: usbmon us1 Usb1 uevent lost+found");
    EXPECT_EQ(chain(UsbDevice::bus_list, &usbbusnode::next), " usb1 usb12");
    EXPECT_EQ(namesIn(UsbDevice::device_list), " 1-1.1 1-1 1-1.3 90-1.2 1-");
    // 1-1.3 begins like it, but is behind 1-1.
    EXPECT_EQ((*UsbDevice::device_list.begin()).first_child, nullptr);
    EXPECT_EQ(namesIn(UsbDevice::interface_list), " 1-2:1.0 1-0:1.0 12-0:0.0 12-0:0.1");
    // By the digit after the colon, so never a root hub's own. The other links show in a dump.
    EXPECT_EQ(UsbDevice::bus_list->first_interface, nullptr);
    EXPECT_EQ(chain(UsbDevice::bus_list->next->first_interface), " 12-0:0.0 12-0:0.1");
    std::string ignored;
    for (const std::string& line : base::Split(errors, "\n")) {
        if (base::StartsWith(line, "ignoring ")) ignored += line.substr(strlen("ignoring"));
    }
    EXPECT_EQ(ignored, " '.x' 'usb' 'usb/' 'usb:' 'usbmon' 'us1' 'Usb1' 'uevent' 'lost+found'");
}

TEST_F(SysfsScan, AttributesAreReadAsIntegersAndAsTexts) {
    const std::string fits(63, 'x');
    // Eleven bytes make an integer, 63 a text.
    const struct {
        std::string content;
        unsigned int decimal, hexadecimal;
        std::string text;
    } cases[] = {{"0x1a\n", 0, 0x1a, "0x1a"},
                 {" 12 MHz", 12, 0x12, " 12 MHz"},
                 {"x", 0, 0, "x"},
                 {"ffffffff", 0, 0xffffffff, "ffffffff"},
                 {"0x00000001ff", 0, 0x1f, "0x00000001ff"},
                 {"\n\n", 0, 0, ""},
                 {"\nx\n\ny\n\n", 0, 0, " x  y"},
                 {fits, 0, 0, fits},
                 {fits + "\n", 0, 0, ""}};
    char text[64];
    for (const auto& c : cases) {
        writeFile(sysfsPath("1-1", "value"), c.content);
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "value", 10), c.decimal) << c.content;
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "value", 16), c.hexadecimal) << c.content;
        UsbDevice::read_sysfs_file_string("1-1", "value", text, sizeof(text));
        EXPECT_EQ(text, c.text);
    }
}

TEST_F(SysfsScan, AttributesThatCannotBeReadAreZeroOrEmptyAndTellWhy) {
    fs::create_directories(sysfsPath("1-1", "power"));
    const auto readNumbers = [] {
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "none", 10), 0u);
        EXPECT_EQ(UsbDevice::read_sysfs_file_int("1-1", "power", 10), 0u);
    };
    EXPECT_EQ(stderrOf(readNumbers),
              "/sys/bus/usb/devices/1-1/none: No such file or directory\n"
              "/sys/bus/usb/devices/1-1/power: Is a directory\n");
    for (const std::string& entry : {std::string("1-2"), std::string(4096, 'x')}) {
        char text[] = "old";
        UsbDevice::read_sysfs_file_string(entry.c_str(), "text", text, sizeof(text));
        EXPECT_STREQ(text, "");
    }
    // An entry that cannot be opened as one.
    writeFile(std::string(kUsbDevicesPath) + "/1-1:1.0", "");
    EXPECT_THAT(scan("1-1:1.0"),
                StartsWith(sysfsPath("1-1:1.0", "bAlternateSetting: Not a directory\n")));
}

// Every number reads "10", which is 16 where the base is so.
TEST_F(SysfsScan, RecordsHoldTheAttributes) {
    for (const char* name : {"usb12", "3-1.2", "3-1.2:4.15"}) {
        addEntry(name,
                 "configuration=10 name, bMaxPower=500mA, manufacturer=Maker, product=A thing, "
                 "serial=0001, version= 2.00, speed=480",
                 "10");
        fs::create_symlink("../../../bus/usb/drivers/a_driver", sysfsPath(name, "driver"));
    }
    fs::create_symlink("/sys/bus/drivers/xhci-hcd", "/sys/devices/controller/driver");
    EXPECT_EQ(scan("usb12 3-1.2 3-1.2:4.15"), "");
    const usbbusnode& b = *UsbDevice::bus_list;
    EXPECT_EQ(b.busnum, 12u);
    EXPECT_THAT((Numbers{b.bDeviceClass, b.idProduct, b.idVendor}), Each(16));
    EXPECT_THAT((Numbers{b.devnum, b.maxchild, b.rx_lanes, b.tx_lanes}), Each(10));
    EXPECT_THAT((Texts{b.speed, b.driver}), ElementsAre("480", "xhci-hcd"));

    const usbdevice& d = *UsbDevice::device_list.begin();
    EXPECT_THAT((Numbers{d.bDeviceClass, d.bDeviceProtocol, d.bDeviceSubClass, d.bMaxPacketSize0,
                         d.bNumInterfaces, d.bcdDevice, d.bmAttributes, d.idProduct, d.idVendor}),
                Each(16));
    EXPECT_THAT((Numbers{d.bNumConfigurations, d.configuration, d.devnum, d.maxchild, d.rx_lanes,
                         d.tx_lanes}),
                Each(10));
    EXPECT_THAT(
        (Texts{d.bMaxPower, d.manufacturer, d.product, d.serial, d.version, d.speed, d.driver}),
        ElementsAre("500mA", "Maker", "A thing", "0001", " 2.00", "480", "a_driver"));

    const usbinterface& i = *UsbDevice::interface_list.begin();
    EXPECT_THAT((Numbers{i.configuration, i.ifnum, i.bAlternateSetting}), ElementsAre(4, 15, 10));
    EXPECT_THAT((Numbers{i.bInterfaceClass, i.bInterfaceNumber, i.bInterfaceProtocol,
                         i.bInterfaceSubClass, i.bNumEndpoints}),
                Each(16));
    EXPECT_STREQ(i.driver, "a_driver");
}

TEST_F(SysfsScan, LongNamesAreCut) {
    const std::string digits(252, '0'), fits = "1-1" + digits.substr(1), tooLong = fits + "0";
    // The path of a driver link has to fit 4096 bytes with its terminator.
    const std::string device(4068, '1'), bus = "usb" + std::string(4062, '1');
    for (const std::string& name : {fits, tooLong}) addEntry(name, "bConfigurationValue=2");
    std::string names, warnings;
    for (const std::string& name : {"usb" + digits, bus, "1-1:1." + digits}) {
        names += " " + name;
        warnings += "warning: '" + name + "' truncated to '" + name.substr(0, 254) + "'\n";
    }
    testing::internal::CaptureStdout();
    scan(fits + " " + tooLong + " " + device + names);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), warnings);
    EXPECT_EQ(namesIn(UsbDevice::device_list),
              " " + fits + " " + fits + " " + device.substr(0, 254));
    Numbers configurations;
    for (const usbdevice& d : UsbDevice::device_list)
        configurations.push_back(d.bConfigurationValue);
    EXPECT_THAT(configurations, ElementsAre(0, 2, 0)) << "is read of a device whose name is cut";
    EXPECT_LOG("E Can not read driver link for " + device + ": " + device + "4096",
               "E Cannot read driver link for " + bus + ": " + bus + "4096");
}

}  // namespace
}  // namespace android::kus
