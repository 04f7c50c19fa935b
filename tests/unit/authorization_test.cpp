// SPDX-License-Identifier: Apache-2.0
#include <filesystem>

#include "kus_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"

namespace android::kus {
namespace {

constexpr int kId = 1005;

class Authorization : public KusTest {
  protected:
    Authorization() {
        for (const char* name : kEntries) addEntry(name, "authorized=1");
        UsbDevice::deviceid_map = {{kId, mapRecord("1-2:1.0")},
                                   {kId, mapRecord("")},
                                   {kId, mapRecord("1-2:1.1")},
                                   {1006, mapRecord("1-3:1.0")}};
    }

    /** What the entries' attributes hold, one after the other. */
    std::string authorized() {
        std::string values;
        for (const char* name : kEntries) values += readFile(sysfsPath(name, "authorized"));
        return values;
    }

    static constexpr const char* kEntries[] = {"1-2", "1-2:1.0", "1-2:1.1", "1-3:1.0"};
};

TEST_F(Authorization, EveryInterfaceOfTheDeviceIsWritten) {
    UsbDevice::update_status(kId, 0);
    // One byte, over the first of the old two; the device itself stays as it is.
    EXPECT_EQ(authorized(), "1\n0\n0\n1\n");
    const std::string found = "I Found deviceId in native list : 1005\t interface path";
    const std::string path = "I update_status path is :/sys/bus/usb/devices/";
    EXPECT_LOG("I update_status path with deviceId 1005 status:0", found + "1-2:1.0",
               path + "1-2:1.0/authorized", found, "I update_status interface_name is NULL",
               found + "1-2:1.1", path + "1-2:1.1/authorized");
    UsbDevice::update_status(kId, 5);
    EXPECT_EQ(authorized(), "1\n1\n1\n1\n");
    UsbDevice::update_status(7, 0);
    EXPECT_EQ(authorized(), "1\n1\n1\n1\n");
}

TEST_F(Authorization, FirstFailureEndsTheWrites) {
    const std::string attribute = sysfsPath("1-2:1.0", "authorized");
    for (const auto& [target, error] :
         {std::pair("/nowhere", "Unable to open the file: No such file or directory\n"),
          std::pair("/dev/full", "Error writing to sysfs file: No space left on device\n")}) {
        std::filesystem::remove(attribute);
        std::filesystem::create_symlink(target, attribute);
        EXPECT_EQ(stderrOf([] { UsbDevice::update_status(kId, 0); }), error);
        EXPECT_LOG(_, _, _, "E Error! Could not open file");
    }
}

}  // namespace
}  // namespace android::kus
