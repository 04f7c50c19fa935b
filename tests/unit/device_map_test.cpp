// SPDX-License-Identifier: Apache-2.0
#include "kus_test.h"

namespace android::kus {
namespace {

const std::string kHid = "0003:046D:C31C.0001";
const std::string kPath = "/sys/bus/usb/devices/1-1:1.0";

class DeviceMap : public KusTest {};

/** "CATEGORY PATH" of 1-1:1.0 with files and directories ("net/") below it, for its class. */
std::string categorise(int interfaceClass, const Texts& files) {
    fs::remove_all(kPath);
    for (const std::string& file : files) {
        if (file.back() == '/') {
            fs::create_directories(kPath + "/" + file);
        } else {
            writeFile(kPath + "/" + file, "");
        }
    }
    usbinterface i = {};
    strcpy(i.name, "1-1:1.0");
    i.bInterfaceClass = interfaceClass;
    UsbDevice::populate_category_device(&i);
    return std::to_string(i.category) + " " + i.category_path;
}

TEST_F(DeviceMap, RebuildKeepsTheInterfacesThatHaveADevice) {
    addEntry("usb1");
    addEntry("1-1", "devnum=123, idVendor=046d, idProduct=c31c, manufacturer=Maker, product=Thing");
    addEntry(
        "1-1:1.2",
        "bInterfaceClass=ff, bInterfaceNumber=02, bInterfaceProtocol=03, bInterfaceSubClass=04");
    addInterface("1-0:1.0", 9);
    UsbDevice::deviceid_map = {{1, mapRecord("is gone")}};
    UsbDevice::create_usb_device_map();
    ASSERT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1123, _)));
    const usbinterface_custom& r = UsbDevice::deviceid_map.begin()->second;
    EXPECT_THAT(
        (std::vector<uint32_t>{r.bInterfaceClass, r.bInterfaceNumber, r.bInterfaceProtocol,
                               r.bInterfaceSubClass, r.busnum, r.devnum, r.idVendor, r.idProduct}),
        ElementsAre(0xFF, 2, 3, 4, 1, 123, 0x046D, 0xC31C));
    EXPECT_THAT((Texts{r.name, r.manufacturer, r.product, r.category_path}),
                ElementsAre("1-1:1.2", "Maker", "Thing", "empty"));
    EXPECT_TRUE(UsbDevice::device_list.empty() && UsbDevice::interface_list.empty());
    EXPECT_EQ(UsbDevice::bus_list, nullptr);

    fs::remove_all("/sys/bus");
    EXPECT_EQ(stderrOf(UsbDevice::create_usb_device_map),
              "/sys/bus/usb/devices: No such file or directory\n");
    EXPECT_THAT(UsbDevice::deviceid_map, IsEmpty());
}

TEST_F(DeviceMap, CategoriesOfInterfaces) {
    const struct {
        int interfaceClass;
        std::string file, category;
        size_t lines;
    } cases[] = {{10, "power/", "0 empty", 0},
                 {8, "net/usb0/", "4 sdcard", 0},
                 {2, "net/usb0/", "1 usb0", 1},
                 {2, "net/", "1 empty", 1},
                 {2, "net/usb0", "1 empty", 1},
                 {2, "net/" + std::string(70, 'n') + "/", "1 " + std::string(63, 'n'), 1},
                 {2, "net", "1 empty", 0},
                 {2, "tty/ttyACM0/", "2 ttyACM0", 0},
                 {2, "tty/", "2 empty", 0},
                 {2, "tty", "2 empty", 0},
                 {3, kHid + "/input/input5/", "0 empty", 1},
                 {3, kHid + "/hidraw/", "8 empty", 2},
                 {3, kHid + "/input", "8 empty", 2},
                 {3, kHid, "0 empty", 0},
                 {3, "input/", "0 empty", 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(categorise(c.interfaceClass, {c.file}), c.category) << c.file;
        EXPECT_THAT(takeLog(), SizeIs(c.lines)) << c.file;
    }
    EXPECT_EQ(categorise(2, {}), "0 empty");
    EXPECT_LOG("I Cannot open directory ", "I " + kPath);
    EXPECT_EQ(categorise(8, {}), "4 sdcard");
    // A path is cut to 254 characters.
    const std::string longName = "1-1:1." + std::string(248, '0');
    addInterface(longName, 2);
    scan("1-1 " + longName);
    EXPECT_THAT(takeLog(), Contains("I " + ("/sys/bus/usb/devices/" + longName).substr(0, 254)));

    // The path is never shortened again: later subdirectories are looked for inside the first.
    EXPECT_EQ(categorise(3, {"0003:1/input/", "0003:2/input/"}), "8 empty");
    const testing::Matcher<std::string> inside =
        AnyOf(EndsWith(kPath + "/0003:1/0003:2"), EndsWith(kPath + "/0003:2/0003:1"));
    EXPECT_LOG(_, inside, "I Cannot open subdir ", inside, "I vendor HID device found");
}

class DeviceRecords : public KusTest {
  protected:
    DeviceRecords() {
        for (const char* name : kEntries) addEntry(name, "authorized=1");
        UsbDevice::deviceid_map = {{1005, mapRecord("1-2:1.0")},
                                   {1005, mapRecord("", 8)},
                                   {1005, mapRecord("1-2:1.1")},
                                   {1006, mapRecord("1-3:1.0")}};
    }

    /** What the entries' attributes hold, one after the other. */
    static std::string authorized() {
        std::string values;
        for (const char* name : kEntries) values += readFile(sysfsPath(name, "authorized"));
        return values;
    }

    static constexpr const char* kEntries[] = {"1-2", "1-2:1.0", "1-2:1.1", "1-3:1.0"};
};

TEST_F(DeviceRecords, AreThoseOfOneDeviceInMapOrder) {
    Texts names;
    for (const usbinterface_custom& r : UsbDevice::get_deviceid_data(1005)) names.push_back(r.name);
    EXPECT_THAT(names, ElementsAre("1-2:1.0", "", "1-2:1.1"));
    EXPECT_THAT(UsbDevice::get_deviceid_data(7), IsEmpty());
    for (const int id : {1005, 1006, 7}) EXPECT_EQ(UsbDevice::check_vendor_hid(id), id == 1005);
    UsbDevice::update_deviceid_map(1005, true);
    EXPECT_EQ(UsbDevice::deviceid_map.size(), 4u);
    UsbDevice::update_deviceid_map(1005, false);
    EXPECT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1006, _)));
}

TEST_F(DeviceRecords, EachNamesAnInterfaceThatIsAuthorized) {
    UsbDevice::update_status(1005, 0);
    // One byte, over the first of the old two; the device itself stays as it is.
    EXPECT_EQ(authorized(), "1\n0\n0\n1\n");
    EXPECT_THAT(takeLog(), Contains("I update_status interface_name is NULL"));
    UsbDevice::update_status(1005, 5);
    EXPECT_EQ(authorized(), "1\n1\n1\n1\n");
    UsbDevice::update_status(7, 0);
    EXPECT_EQ(authorized(), "1\n1\n1\n1\n");
}

TEST_F(DeviceRecords, FirstFailureEndsTheWrites) {
    const std::string attribute = sysfsPath("1-2:1.0", "authorized");
    for (const auto& [target, error] :
         {std::pair("/nowhere", "Unable to open the file: No such file or directory\n"),
          std::pair("/dev/full", "Error writing to sysfs file: No space left on device\n")}) {
        fs::remove(attribute);
        fs::create_symlink(target, attribute);
        takeLog();
        EXPECT_EQ(stderrOf([] { UsbDevice::update_status(1005, 0); }), error);
        EXPECT_LOG(_, _, _, "E Error! Could not open file");
    }
}

}  // namespace
}  // namespace android::kus
