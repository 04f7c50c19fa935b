// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include <algorithm>
#include <filesystem>

#include "service_test.h"
#include "usb_tree.h"
#include "usbdevice/UsbDevice.h"
#include "util/rule_tables.h"

namespace android::kus {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;
using testing::UnorderedElementsAre;

/** The mode is "default": every device that is asked about is recorded. */
class DeviceLists : public ServiceTest {
  protected:
    DeviceLists() { service_->registerKusCallback(client_); }

    void add(const DeviceInfo& device) { EXPECT_TRUE(isAllowed(device)); }

    const sp<FakeClient> client_ = new FakeClient();
};

TEST_F(DeviceLists, RecordHoldsTheDecisionAndTheCategories) {
    addDevice("1-1", 2);
    addInterface("1-1:1.0", 8);
    addInterface("1-1:1.1", 8);
    addInterface("1-1:1.2", 7);
    addInterface("1-1:1.3", 2, {"tty/ttyACM0"});
    DeviceInfo device = usbDevice(1002, {8, 8, 7, 2}, 3, 4);
    device.deviceClass = 239;
    device.status = 7;
    device.reason = "mine";
    device.category = 99;
    device.categoryPath = "mine;";
    takeLog();
    add(device);

    DeviceInfo expected = device;
    expected.status = 1;
    expected.reason = "Enabled by default rule";
    expected.category = 4 + 4 + 0 + 2;
    const std::vector<DeviceInfo> listed = deviceList();
    ASSERT_EQ(listed.size(), 1u);
    // In the reader's order of the interfaces.
    expected.categoryPath = listed[0].categoryPath;
    EXPECT_EQ(text(listed[0]), text(expected));
    EXPECT_THAT(UsbDevice::split(expected.categoryPath, ';'),
                UnorderedElementsAre("sdcard", "empty", "ttyACM0"));
    EXPECT_EQ(expected.categoryPath.back(), ';');

    EXPECT_THAT(client_->devices(), ElementsAre(text(expected)));
    EXPECT_THAT(takeLog(), testing::IsSupersetOf(
                               {std::string("I usb1002 device added to mUsbDeviceInfoList "),
                                std::string("I custom_struct size is 4"),
                                "I  device category  10 categoryPath " + expected.categoryPath}));
}

TEST_F(DeviceLists, FirstRecordOfAnIdStaysAndClientsHearOfBoth) {
    add(usbDevice(1002, {8}));
    DeviceInfo second = usbDevice(1002, {8});
    second.deviceName = "again";
    add(second);
    add(inputDevice(1002, 0x101));
    second.deviceType = 1;
    add(second);
    EXPECT_EQ(mUsbDeviceInfoList.at(1002)->deviceName, "usb1002");
    EXPECT_EQ(mInputDeviceInfoList.at(1002)->deviceName, "input1002");
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1002", "added again"));
}

TEST_F(DeviceLists, ListHasInputDevicesFirstAndAppends) {
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_THAT(takeLog(),
                testing::IsSupersetOf(
                    {"I --getDeviceList()--", "I getDeviceList--completeDeviceInfoList size0"}));
    add(usbDevice(1003, {8}));
    add(usbDevice(-5, {8}));
    add(inputDevice(2000, 0x101));
    add(inputDevice(9, 0x101));
    std::vector<DeviceInfo> devices(1);
    takeLog();
    service_->getDeviceList(&devices);
    std::vector<std::string> names;
    for (const DeviceInfo& device : devices) names.push_back(device.deviceName);
    EXPECT_THAT(names, ElementsAre("", "input9", "input2000", "usb-5", "usb1003"));
    EXPECT_THAT(takeLog(), ElementsAre("I --getDeviceList()--",
                                       "I getDeviceList--completeDeviceInfoList size4"));
}

TEST_F(DeviceLists, RemovalTellsClientsWhatTheCallerPassed) {
    UsbDevice::deviceid_map = {{1002, {}}, {1003, {}}};
    mUsbDeviceInfoList[1002] = std::make_unique<DeviceInfo>();
    mInputDeviceInfoList[1002] = std::make_unique<DeviceInfo>();
    isUserDebugBuild = true;
    takeLog();
    DeviceInfo device = usbDevice(1002, {});
    device.reason = "passed";
    remove(device);
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I updateDeviceList--Device Name : usb1002updateStatus::Added/Removed 0",
                    "I updateDeviceList--calling get_deviceid_data while removing",
                    "I updateDeviceList--: sending callback to client onDeviceRemoved " +
                        address(static_cast<IKUsbServiceCallback*>(client_.get())),
                    "I update_deviceid_map deviceId:1002 flag:0",
                    "I usb1002 device removed from mUsbDeviceInfoList",
                    "I updateDeviceList--mInputDeviceInfoList size: 1 mUsbDeviceInfoList size: 0"));
    EXPECT_THAT(client_->devices(), ElementsAre(text(device)));
    EXPECT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1003, testing::_)));

    // Gone already, and still told.
    isUserDebugBuild = false;
    remove(device);
    EXPECT_THAT(client_->calls(), ElementsAre("removed usb1002", "removed usb1002"));
    EXPECT_THAT(takeLog(), testing::SizeIs(5));
}

TEST_F(DeviceLists, InputDevicesComeAndGoWithoutCallbacks) {
    add(inputDevice(1002, 0x101));
    mUsbDeviceInfoList[1002] = std::make_unique<DeviceInfo>();
    takeLog();
    remove(inputDevice(1002, 0x101));
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I updateDeviceList--Device Name : input1002updateStatus::Added/Removed 0",
                    "I input1002 device removed from mInputDeviceInfoList",
                    "I updateDeviceList--mInputDeviceInfoList size: 0 mUsbDeviceInfoList size: 1"));
    EXPECT_THAT(client_->calls(), IsEmpty());
}

TEST_F(DeviceLists, AdditionIsOnlyLogged) {
    takeLog();
    service_->updateDeviceList(usbDevice(1, {8}), 1);
    service_->updateDeviceList(inputDevice(2, 0x101), -1);
    const std::string name = "I updateDeviceList--Device Name : ";
    const std::string sizes =
        "I updateDeviceList--mInputDeviceInfoList size: 0 mUsbDeviceInfoList size: 0";
    EXPECT_THAT(takeLog(), ElementsAre(name + "usb1updateStatus::Added/Removed 1",
                                       "I usb1 device added to mUsbDeviceInfoList", sizes,
                                       name + "input2updateStatus::Added/Removed -1",
                                       "I input2 device added to mInputDeviceInfoList", sizes));
    EXPECT_THAT(client_->calls(), IsEmpty());
}

TEST_F(DeviceLists, AutomationStopsUpdates) {
    add(usbDevice(1002, {8}));
    property_set("ro.config.device.kus_automation", "1");
    takeLog();
    remove(usbDevice(1002, {8}));
    EXPECT_THAT(takeLog(), ElementsAre("I updateDeviceList::Automation flag set, return"));
    EXPECT_EQ(mUsbDeviceInfoList.size(), 1u);
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1002"));
}

TEST_F(DeviceLists, EveryRegistrationIsToldWhateverAnotherReturns) {
    const sp<FakeClient> second = new FakeClient();
    service_->registerKusCallback(second);
    service_->registerKusCallback(second);
    isUserDebugBuild = true;
    takeLog();
    add(usbDevice(1, {8}));
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1"));
    EXPECT_THAT(second->calls(), ElementsAre("added usb1", "added usb1"));
    const std::string sending = "I addDeviceList: sending callback to client of onDeviceAdded  ";
    const std::vector<std::string> log = takeLog();
    EXPECT_EQ(std::count(log.begin(), log.end(),
                         sending + address(static_cast<IKUsbServiceCallback*>(second.get()))),
              2);
}

// As when the client's buffer is full. A dead one's registration is about to go.
TEST_F(DeviceLists, ALostNoticeIsAnErrorInTheLog) {
    client_->callStatus = FAILED_TRANSACTION;
    const sp<FakeClient> dead = new FakeClient();
    service_->registerKusCallback(dead);
    takeLog();
    add(usbDevice(1, {8}));
    remove(usbDevice(1, {8}));
    std::vector<std::string> errors;
    for (const std::string& line : takeLog()) {
        if (line[0] == 'E') errors.push_back(line);
    }
    EXPECT_THAT(errors, ElementsAre(StartsWith("E Could not give onDeviceAdded to client 0x"),
                                    StartsWith("E Could not give onDeviceRemoved to client 0x")));
}

TEST_F(DeviceLists, ClientMayCallTheServiceFromItsCallback) {
    const sp<FakeClient> late = new FakeClient();
    size_t listed = 0;
    client_->whenCalled = [&] {
        listed = deviceList().size();
        service_->registerKusCallback(late);
        service_->unregisterKusCallback(client_);
        bool allowed;
        service_->isDeviceAllowed(inputDevice(7, 0x101), &allowed);
    };
    add(usbDevice(1, {8}));
    // The record is stored when every client has been told.
    EXPECT_EQ(listed, 0u);
    EXPECT_EQ(deviceList().size(), 2u);
    EXPECT_EQ(client_->links(), 0u);
    EXPECT_EQ(late->links(), 1u);
}

TEST_F(DeviceLists, ResetReachesTheHostControllers) {
    const std::string mode = "/sys/devices/platform/soc/a800000.ssusb/mode";
    writeFile(mode, "host");
    takeLog();
    EXPECT_TRUE(service_->resetUsbDevices(0).isOk());
    const std::string syspath = " for syspath: " + mode;
    EXPECT_THAT(takeLog(), ElementsAre("I resetUsbDevices called", "I usb_host_reset entered:",
                                       "I usb_host_reset mode set to none" + syspath,
                                       "I usb_host_reset mode set to host" + syspath));
    // Not docked, so a wait is not even begun.
    writeFile("/sys/class/power_supply/dc/online", "0");
    EXPECT_TRUE(service_->resetUsbDevices(30).isOk());
    EXPECT_THAT(takeLog(), Contains("I virtual_undock_dock_event usbPath : empty"));
}

}  // namespace
}  // namespace android::kus
