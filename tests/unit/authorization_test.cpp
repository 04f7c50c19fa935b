// SPDX-License-Identifier: Apache-2.0
#include <filesystem>

#include "kus_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

using testing::ElementsAre;
using testing::EndsWith;

class Authorization : public KusTest {
  protected:
    /** Two interfaces of device 1005, in this order, and one of 1006. */
    Authorization() {
        addDevice("1-2", 5);
        for (const char* name : {"1-2:1.0", "1-2:1.1", "1-3:1.0"}) {
            addInterface(name, 8);
            usbinterface_custom record = {};
            strcpy(record.name, name);
            UsbDevice::deviceid_map.emplace(name[2] == '2' ? 1005 : 1006, record);
        }
    }

    std::string authorized(const std::string& entry) {
        return readFile(sysfsPath(entry, "authorized"));
    }
};

TEST_F(Authorization, EveryInterfaceOfTheDeviceIsWritten) {
    UsbDevice::update_status(1005, 0);
    // One byte, over the first of the old two; the device itself stays as it is.
    EXPECT_EQ(authorized("1-2:1.0"), "0\n");
    EXPECT_EQ(authorized("1-2:1.1"), "0\n");
    EXPECT_EQ(authorized("1-3:1.0"), "1\n");
    EXPECT_EQ(authorized("1-2"), "1\n");
    const std::string found = "I Found deviceId in native list : 1005\t interface path";
    const std::string path = "I update_status path is :/sys/bus/usb/devices/";
    EXPECT_THAT(takeLog(), ElementsAre("I update_status path with deviceId 1005 status:0",
                                       found + "1-2:1.0", path + "1-2:1.0/authorized",
                                       found + "1-2:1.1", path + "1-2:1.1/authorized"));
    UsbDevice::update_status(1005, 5);
    EXPECT_EQ(authorized("1-2:1.0"), "1\n");
    EXPECT_EQ(authorized("1-2:1.1"), "1\n");
}

TEST_F(Authorization, UnknownDeviceWritesNothing) {
    UsbDevice::update_status(7, 0);
    EXPECT_THAT(takeLog(), ElementsAre("I update_status path with deviceId 7 status:0"));
    EXPECT_EQ(authorized("1-2:1.0"), "1\n");
}

TEST_F(Authorization, FirstFailureEndsTheWrites) {
    const std::string attribute = sysfsPath("1-2:1.0", "authorized");
    const auto update = [] { UsbDevice::update_status(1005, 0); };
    std::filesystem::remove(attribute);
    EXPECT_EQ(stderrOf(update), "Unable to open the file: No such file or directory\n");
    EXPECT_EQ(authorized("1-2:1.0"), "(no file)");
    EXPECT_EQ(authorized("1-2:1.1"), "1\n");

    // A device that refuses every write.
    std::filesystem::create_symlink("/dev/full", attribute);
    EXPECT_EQ(stderrOf(update), "Error writing to sysfs file: No space left on device\n");
    EXPECT_EQ(authorized("1-2:1.1"), "1\n");
    const std::vector<std::string> failure = {
        "I update_status path with deviceId 1005 status:0",
        "I Found deviceId in native list : 1005\t interface path1-2:1.0",
        "I update_status path is :/sys/bus/usb/devices/1-2:1.0/authorized",
        "E Error! Could not open file"};
    std::vector<std::string> twice = failure;
    twice.insert(twice.end(), failure.begin(), failure.end());
    EXPECT_EQ(takeLog(), twice);
}

TEST_F(Authorization, RecordWithoutNameIsPassedOver) {
    UsbDevice::deviceid_map.begin()->second.name[0] = '\0';
    UsbDevice::update_status(1005, 0);
    EXPECT_EQ(authorized("1-2:1.0"), "1\n");
    EXPECT_EQ(authorized("1-2:1.1"), "0\n");
    EXPECT_THAT(takeLog(), testing::Contains("I update_status interface_name is NULL"));
}

}  // namespace
}  // namespace android::kus
