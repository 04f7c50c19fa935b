// SPDX-License-Identifier: Apache-2.0
#include <cutils/properties.h>

#include "service_test.h"

namespace android::kus {
namespace {

/** The mode is "default": every device that is asked about is recorded. */
class DeviceLists : public ServiceTest {
  protected:
    DeviceLists() { service_->registerKusCallback(client_); }

    void add(const DeviceInfo& device) { EXPECT_TRUE(isAllowed(device)); }
};

TEST_F(DeviceLists, RecordHoldsTheDecisionAndTheCategories) {
    addDevice("1-1", 2);
    for (const char* name : {"1-1:1.0", "1-1:1.1"}) addInterface(name, 8);
    addInterface("1-1:1.2", 2, {"tty/ttyACM0"});
    DeviceInfo device = usbDevice(1002, {8, 8, 2}, 3, 4);
    device.deviceClass = 239;
    device.status = device.category = 99;
    device.reason = device.categoryPath = "mine;";
    add(device);
    const DeviceInfo listed = deviceList().at(0);
    // In the reader's order of the interfaces.
    EXPECT_THAT(listed.categoryPath, AnyOf("sdcard;ttyACM0;", "ttyACM0;sdcard;"));
    EXPECT_EQ(text(listed),
              "usb1002, id 1002, class 239, interfaces { 8, 8, 2 }, 3:4, status 1, type 0, "
              "reason Enabled by default rule, category 10 " +
                  listed.categoryPath);
    EXPECT_EQ(text(client_->lastDevice), text(listed));
}

TEST_F(DeviceLists, ListHasInputDevicesFirstAndTheFirstRecordOfAnId) {
    for (DeviceInfo device : {usbDevice(1003, {8}), usbDevice(-5, {8}), inputDevice(2000, 0x101),
                              inputDevice(-5, 0x101)}) {
        add(device);
        device.deviceName = "again";
        add(device);
    }
    EXPECT_THAT(client_->calls(),
                ElementsAre("added usb1003", "added again", "added usb-5", "added again"));
    std::vector<DeviceInfo> devices(1);
    service_->getDeviceList(&devices);
    Texts names;
    for (const DeviceInfo& device : devices) names.push_back(device.deviceName);
    EXPECT_THAT(names, ElementsAre("", "input-5", "input2000", "usb-5", "usb1003")) << "appended";
}

TEST_F(DeviceLists, ClientsHearOfRemovedUsbDevicesAsTheCallerPassedThem) {
    add(usbDevice(1002, {8}));
    add(inputDevice(1002, 0x101));
    UsbDevice::deviceid_map = {{1002, {}}, {1003, {}}};
    service_->updateDeviceList(usbDevice(1002, {8}), 1);
    service_->updateDeviceList(inputDevice(1002, 0x101), -1);
    EXPECT_THAT(deviceList(), SizeIs(2));
    remove(inputDevice(1002, 0x101));
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1002"));

    const DeviceInfo device = usbDevice(1002, {}, 2, 3);
    remove(device);
    EXPECT_THAT(deviceList(), IsEmpty());
    EXPECT_EQ(text(client_->lastDevice), text(device));
    EXPECT_THAT(UsbDevice::deviceid_map, ElementsAre(Pair(1003, _)));
    // Gone already, and still told.
    remove(device);
    property_set("ro.config.device.kus_automation", "1");
    takeLog();
    remove(device);
    EXPECT_LOG("I updateDeviceList::Automation flag set, return");
    EXPECT_THAT(client_->calls(),
                ElementsAre("added usb1002", "removed usb1002", "removed usb1002"));
}

// A full buffer loses a notice. A dead client is none: its registration is about to go.
TEST_F(DeviceLists, EveryRegistrationIsToldAndALostNoticeIsAnError) {
    const sp<FakeClient> dead = new FakeClient(), full = new FakeClient();
    dead->callStatus = DEAD_OBJECT;
    full->callStatus = FAILED_TRANSACTION;
    for (const auto& client : {dead, full, client_}) service_->registerKusCallback(client);
    add(usbDevice(1, {8}));
    remove(usbDevice(1, {8}));
    for (const auto& client : {dead, full}) {
        EXPECT_THAT(client->calls(), ElementsAre("added usb1", "removed usb1"));
        service_->unregisterKusCallback(client);
    }
    EXPECT_EQ(client_->links(), 2u);
    service_->unregisterKusCallback(client_);
    add(usbDevice(2, {8}));
    EXPECT_THAT(client_->calls(), ElementsAre("added usb1", "added usb1", "removed usb1",
                                              "removed usb1", "added usb2"));
    const Texts log = takeLog();
    for (const std::string notice : {"onDeviceAdded", "onDeviceRemoved"}) {
        EXPECT_EQ(countOf("E Could not give " + notice + " to client 0x", log), 1);
    }
}

TEST_F(DeviceLists, ClientMayCallTheServiceFromItsCallback) {
    const sp<FakeClient> late = new FakeClient();
    client_->whenCalled = [&] {
        EXPECT_THAT(deviceList(), IsEmpty()) << "recorded before every client has been told";
        service_->registerKusCallback(late);
        service_->unregisterKusCallback(client_);
        remove(usbDevice(1, {8}));
        isAllowed(inputDevice(7, 0x101));
    };
    add(usbDevice(1, {8}));
    EXPECT_THAT(deviceList(), SizeIs(2));
    EXPECT_EQ(client_->links(), 0u);
    EXPECT_EQ(late->links(), 1u);
}

}  // namespace
}  // namespace android::kus
