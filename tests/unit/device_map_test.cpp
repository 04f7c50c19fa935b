// SPDX-License-Identifier: Apache-2.0
#include <filesystem>

#include "kus_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace fs = std::filesystem;

namespace android::kus {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Texts = std::vector<std::string>;

constexpr char kHid[] = "0003:046D:C31C.0001";

class DeviceMap : public KusTest {};

/** The interfaces of a device, in map order. */
Texts namesOf(int deviceId) {
    Texts names;
    for (const usbinterface_custom& r : UsbDevice::get_deviceid_data(deviceId)) {
        names.push_back(r.name);
    }
    return names;
}

usbinterface_custom record(const char* name, int category = 0) {
    usbinterface_custom r = {};
    strcpy(r.name, name);
    r.category = category;
    return r;
}

/** Categorises 1-1:1.0; "CATEGORY PATH". */
std::string categorise(int interfaceClass) {
    usbinterface i = {};
    strcpy(i.name, "1-1:1.0");
    i.bInterfaceClass = interfaceClass;
    UsbDevice::populate_category_device(&i);
    return std::to_string(i.category) + " " + i.category_path;
}

TEST_F(DeviceMap, RebuildKeepsTheInterfacesThatHaveADevice) {
    addEntry("usb1", {{"devnum", "1"}});
    addEntry("1-1", {{"devnum", "123"},
                     {"idVendor", "046d"},
                     {"idProduct", "c31c"},
                     {"manufacturer", "Maker"},
                     {"product", "A thing"}});
    addEntry("1-1:1.2", {{"bInterfaceClass", "ff"},
                         {"bInterfaceNumber", "02"},
                         {"bInterfaceProtocol", "03"},
                         {"bInterfaceSubClass", "04"}});
    addInterface("1-0:1.0", 9);
    addInterface("1-7:1.0", 8);
    stderrOf(UsbDevice::create_usb_device_map);
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I create_usb_device_map called", "I deleting the list using deleteAllnode",
                    "I ***Entered empty_list******", "I print_deviceid_map ",
                    "I  DeviceId: 1123 Interface name:1-1:1.2 class:255 Vendor ID:1133 Product "
                    "ID:49948",
                    "I create_usb_device_map returned check loop"));
    ASSERT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1123, testing::_)));
    const usbinterface_custom& r = UsbDevice::deviceid_map.begin()->second;
    EXPECT_THAT(
        (std::vector<uint32_t>{r.bInterfaceClass, r.bInterfaceNumber, r.bInterfaceProtocol,
                               r.bInterfaceSubClass, r.busnum, r.devnum, r.idVendor, r.idProduct}),
        ElementsAre(0xFF, 2, 3, 4, 1, 123, 0x046D, 0xC31C));
    EXPECT_THAT((Texts{r.name, r.manufacturer, r.product, r.category_path}),
                ElementsAre("1-1:1.2", "Maker", "A thing", "empty"));
    EXPECT_TRUE(UsbDevice::device_list.empty());
    EXPECT_TRUE(UsbDevice::interface_list.empty());
    EXPECT_EQ(UsbDevice::bus_list, nullptr);
}

TEST_F(DeviceMap, RecordsAreInIdOrderAndThenInTheReadersOrder) {
    addDevice("2-1", 5);
    addInterface("2-1:1.0", 2);
    addDevice("1-3", 40);
    for (const char* name : {"1-3:1.1", "1-3:1.0", "1-3:1.2"}) addInterface(name, 8);
    UsbDevice::create_usb_device_map();
    Texts expected = readerOrder("/sys/bus/usb/devices");
    expected.erase(std::remove_if(expected.begin(), expected.end(),
                                  [](const std::string& name) { return name.find("1-3:") != 0; }),
                   expected.end());
    EXPECT_EQ(namesOf(1040), expected);
    EXPECT_EQ(UsbDevice::deviceid_map.rbegin()->first, 2005);
}

TEST_F(DeviceMap, RebuildForgetsWhatIsGone) {
    addDevice("1-1", 2);
    addInterface("1-1:1.0", 8);
    UsbDevice::create_usb_device_map();
    EXPECT_THAT(namesOf(1002), ElementsAre("1-1:1.0"));
    fs::remove("/sys/bus/usb/devices/1-1:1.0");
    UsbDevice::create_usb_device_map();
    EXPECT_THAT(UsbDevice::deviceid_map, IsEmpty());

    UsbDevice::deviceid_map.emplace(1002, record("1-1:1.0"));
    fs::remove_all("/sys/bus");
    takeLog();
    EXPECT_EQ(stderrOf(UsbDevice::create_usb_device_map),
              "/sys/bus/usb/devices: No such file or directory\n");
    EXPECT_THAT(UsbDevice::deviceid_map, IsEmpty());
    EXPECT_THAT(takeLog(), ElementsAre("I create_usb_device_map called",
                                       "I deleting the list using deleteAllnode",
                                       "I ***Entered empty_list******", "I print_deviceid_map ",
                                       "I create_usb_device_map returned check loop"));
}

TEST_F(DeviceMap, CategoriesOfInterfaces) {
    const std::string path = "/sys/bus/usb/devices/1-1:1.0/";
    const std::string net = "I  new path of dir:" + path + "net";
    const std::string hid = "I  new path of subdir for HID:" + path + kHid;
    const std::string vendorHid = "I vendor HID device found";
    const struct {
        int interfaceClass;
        std::string directory, category;
        Texts log;
    } cases[] = {{10, "power", "0 empty", {}},
                 {8, "net/usb0", "4 sdcard", {}},
                 {2, "net/usb0", "1 usb0", {net}},
                 {2, "net", "1 empty", {net}},
                 {2, "tty/ttyACM0", "2 ttyACM0", {}},
                 {2, "tty", "2 empty", {}},
                 {2, "net/" + std::string(70, 'n'), "1 " + std::string(63, 'n'), {net}},
                 {3, kHid + std::string("/input/input5"), "0 empty", {hid}},
                 {3, kHid + std::string("/hidraw"), "8 empty", {hid, vendorHid}},
                 {3, kHid, "8 empty", {hid, vendorHid}},
                 {3, "input", "0 empty", {}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.directory);
        fs::remove_all(path);
        fs::create_directories(path + c.directory);
        EXPECT_EQ(categorise(c.interfaceClass), c.category);
        EXPECT_EQ(takeLog(), c.log);
    }
    // Files of these names: "net" and "tty" count, but nothing in them does.
    for (const auto& [file, category] :
         {std::pair("net", "1 empty"), std::pair("tty", "2 empty"), std::pair(kHid, "0 empty"),
          std::pair("net/usb0", "1 empty"), std::pair("0003:1:2.3/input", "8 empty")}) {
        fs::remove_all(path);
        writeFile(path + file, "");
        EXPECT_EQ(categorise(3), category) << file;
    }
    fs::remove_all(path);
    takeLog();
    EXPECT_EQ(categorise(2), "0 empty");
    EXPECT_THAT(takeLog(),
                ElementsAre("I Cannot open directory ", "I " + path.substr(0, path.size() - 1)));
    EXPECT_EQ(categorise(8), "4 sdcard");
}

TEST_F(DeviceMap, LaterSubdirectoriesAreLookedForInsideTheFirst) {
    const std::string path = "/sys/bus/usb/devices/1-1:1.0/";
    fs::create_directories(path + kHid + "/input");
    fs::create_directories(path + "net/usb0");
    const std::string category = categorise(3);
    if (readerOrder(path)[0] == "net") {
        EXPECT_EQ(category, "1 usb0");
        return;
    }
    EXPECT_EQ(category, "1 empty");
    EXPECT_THAT(takeLog(), ElementsAre("I  new path of subdir for HID:" + path + kHid,
                                       "I  new path of dir:" + path + kHid + "/net",
                                       "I Cannot open directory ", "I " + path + kHid + "/net"));
}

TEST_F(DeviceMap, LookupsSeeOneDeviceInMapOrder) {
    UsbDevice::deviceid_map = {{1002, record("1-1:1.0", 8)},
                               {1003, record("1-2:1.0", 0)},
                               {1003, record("1-2:1.1", 8)},
                               {1003, record("1-2:1.2", 8)}};
    EXPECT_THAT(namesOf(1003), ElementsAre("1-2:1.0", "1-2:1.1", "1-2:1.2"));
    EXPECT_THAT(namesOf(7), IsEmpty());
    EXPECT_THAT(takeLog(), ElementsAre("I get_deviceid_data() with deviceId : 1003size--4",
                                       "I Found deviceid  : 1003device : 1-2:1.0",
                                       "I Found deviceid  : 1003device : 1-2:1.1",
                                       "I Found deviceid  : 1003device : 1-2:1.2",
                                       "I get_deviceid_data() with deviceId : 7size--4"));
    EXPECT_TRUE(UsbDevice::check_vendor_hid(1003));
    EXPECT_FALSE(UsbDevice::check_vendor_hid(7));
    const std::string found = "I Found deviceId in native list : 1003\t interface path";
    EXPECT_THAT(takeLog(),
                ElementsAre("I check_vendor_hid 1003", found + "1-2:1.0 device category0",
                            found + "1-2:1.1 device category8", "I check_vendor_hid 7"));

    UsbDevice::update_deviceid_map(1003, true);
    UsbDevice::update_deviceid_map(7, false);
    EXPECT_EQ(UsbDevice::deviceid_map.size(), 4u);
    UsbDevice::update_deviceid_map(1003, false);
    EXPECT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1002, testing::_)));
    EXPECT_THAT(takeLog(), ElementsAre("I update_deviceid_map deviceId:1003 flag:1",
                                       "I update_deviceid_map deviceId:7 flag:0",
                                       "I update_deviceid_map deviceId:1003 flag:0"));
}

}  // namespace
}  // namespace android::kus
