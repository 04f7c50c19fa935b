// SPDX-License-Identifier: Apache-2.0
#include <cutils/uevent.h>
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <thread>

#include "gate/following.h"
#include "gate_test.h"

namespace android::kus {
namespace {

using std::chrono::steady_clock;

/** What the kernel does next: returns an event "ACTION SUBSYSTEM DEVTYPE NAME", or sets errno. */
std::deque<std::function<std::string()>> nextEvents;
/** The kernel's end of the socket. */
int kernelEnd = -1;

std::function<std::string()> event(const std::string& text) {
    return [text] { return text; };
}

}  // namespace
}  // namespace android::kus

// In place of the platform's.

int uevent_open_socket(int, bool) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -1;
    android::kus::kernelEnd = ends[1];
    return ends[0];
}

ssize_t uevent_kernel_multicast_recv(int, void* buffer, size_t size) {
    using namespace android::kus;
    if (nextEvents.empty()) endLoop();
    const auto next = nextEvents.front();
    nextEvents.pop_front();
    std::istringstream words(next());
    std::string action, subsystem, type, name;
    if (!(words >> action >> subsystem >> type >> name)) return -1;
    const std::string text = action + "@/x/" + name + '\0' + "ACTION=" + action + '\0' +
                             "SUBSYSTEM=" + subsystem + '\0' + "DEVTYPE=" + type + '\0' +
                             "DEVPATH=/x/" + name;
    EXPECT_GE(size, text.size());
    memcpy(buffer, text.data(), text.size());
    return text.size();
}

namespace android::kus {
namespace {

class GateFollowing : public GateTest {
  protected:
    /** A root hub with a hub, a stick, a keyboard, and the inputs that go with such a machine. */
    GateFollowing() {
        addRootHub("usb1");
        attach("1-1", "09", {"09"});
        attach("1-2", "00", {"08"});
        attach("1-3", "00", {"03"});
        addMouse("input2");
        addMouse("input3", "0019");
    }
    ~GateFollowing() override { close(kernelEnd); }

    static void addRootHub(const std::string& name) {
        addEntry(name, "bDeviceClass=09, interface_authorized_default=1, uevent=");
    }

    void run(bool closed, const std::deque<std::function<std::string()>>& events) {
        nextEvents = events;
        runLoop([&] { followKernel(&table_, closed); });
    }

    Texts names() {
        Texts names;
        for (const auto& device : table_.devices()) names.push_back(device->name);
        return names;
    }

    static void awaitHubDriverFor(const std::string& interface) {
        const auto deadline = steady_clock::now() + std::chrono::seconds(10);
        while (readFile("/sys/bus/usb/drivers/hub/bind") != interface) {
            ASSERT_LT(steady_clock::now(), deadline);
            std::this_thread::yield();
        }
    }

    DeviceTable table_;
};

TEST_F(GateFollowing, TheTableIsWhatIsAttached) {
    DeviceTable::Pointer stick;
    run(false,
        {[&] {
             EXPECT_THAT(names(), ElementsAre("1-1", "1-2", "1-3", "input2"));
             stick = table_.devices()[1];
             attach("1-4", "00", {"08"});
             // Not yet configured, and none of the two subsystems.
             return "add usb usb_device 1-4";
         },
         event("bind usb usb_interface 1-4"), event("bind block usb_device 1-4"),
         event("bind usb usb_device usb1"), event("bind usb usb_device 1-9"),
         event("remove block disk 1-2"), event("remove leds - input2"), event("add input - event2"),
         [&] {
             EXPECT_THAT(names(), ElementsAre("1-1", "1-2", "1-3", "input2"));
             EXPECT_EQ(table_.devices()[1], stick);
             addMouse("input4");
             return "add input - input4";
         },
         event("add input - input3"), event("bind usb usb_device 1-4"),
         event("remove usb usb_device 1-3"), event("remove input - input2"),
         // Configured anew.
         event("add usb usb_interface 1-2:1.0"), event("add usb usb_interface 1-3:1.0")});
    EXPECT_THAT(names(), ElementsAre("1-1", "1-2", "1-4", "input4"));
    EXPECT_NE(table_.devices()[1], stick);
    EXPECT_EQ(readFile(sysfsPath("usb1", "interface_authorized_default")), "1\n");
    EXPECT_EQ(isAuthorized("1-2"), '1');
    EXPECT_EQ(isInhibited("input4"), '0');
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(GateFollowing, LostEventsAreMadeUpFor) {
    const auto error = [](int number) {
        return [number] {
            errno = number;
            return "";
        };
    };
    run(false, {error(EIO), [&] {
                    for (const auto& device : table_.devices()) table_.setDecided(device);
                    detach("1-1");
                    detach("1-2");
                    attach("1-4", "00", {"08"});
                    // Not heard: of before the overrun.
                    EXPECT_EQ(send(kernelEnd, "12", 2, 0), 2);
                    EXPECT_EQ(send(kernelEnd, "3", 1, 0), 1);
                    errno = ENOBUFS;
                    return "";
                }});
    EXPECT_THAT(names(), ElementsAre("1-3", "1-4", "input2"));
    EXPECT_EQ(table_.nextTask().undecided->name, "1-3");
    EXPECT_LOG("W kernel events were lost: asking about all devices again");
    EXPECT_DEATH(run(false, {error(ENOMEM)}), "cannot receive kernel events");
}

// Nothing that the kernel has opened stays open, but for hubs.
TEST_F(GateFollowing, OpenBusesAreClosed) {
    writeFile("/sys/bus/usb/drivers/hub/bind", "");
    writeFile(sysfsPath("1-1", "1-1:1.0/authorized"), "0");
    DeviceTable::Pointer stick;
    run(true, {[&] {
                   EXPECT_THAT(names(), ElementsAre("1-1", "1-2", "1-3", "input2"));
                   EXPECT_EQ(isAuthorized("1-2"), '0');
                   EXPECT_EQ(isAuthorized("1-3"), '0');
                   EXPECT_EQ(isInhibited("input2"), '1');
                   EXPECT_EQ(isInhibited("input3"), '0');
                   writeFile(inputPath("input2", "inhibited"), "0");
                   addMouse("input4");
                   return "add input - input4";
               },
               event("add input - input2"),
               [&] {
                   addRootHub("usb2");
                   attach("2-1", "00", {"08"});
                   return "add usb usb_device usb2";
               }});
    for (const char* bus : {"usb1", "usb2"}) {
        EXPECT_EQ(readFile(sysfsPath(bus, "interface_authorized_default"))[0], '0') << bus;
    }
    EXPECT_EQ(isAuthorized("2-1"), '0');
    EXPECT_EQ(isInhibited("input4"), '1');
    // It was known, and answered.
    EXPECT_EQ(isInhibited("input2"), '0');
    awaitHubDriverFor("1-1:1.0");
}

// What else is open there has been allowed.
TEST_F(GateFollowing, OnClosedBusesOnlyHidsAreClosed) {
    writeFile(sysfsPath("usb1", "interface_authorized_default"), "0");
    run(true, {[] {
            EXPECT_EQ(isAuthorized("1-2"), '1');
            EXPECT_EQ(isAuthorized("1-3"), '0');
            addRootHub("usb2");
            errno = ENOBUFS;
            return "";
        }});
    EXPECT_EQ(readFile(sysfsPath("usb2", "interface_authorized_default"))[0], '0');
}

// As after its controller has left the host role and come back.
TEST_F(GateFollowing, ARootHubIsOpenedWhenItsInterfaceComes) {
    detach("1-1");
    writeFile("/sys/bus/usb/drivers/hub/bind", "");
    run(true, {[] {
            addRootHub("usb2");
            for (const char* attribute : {"bInterfaceNumber", "bInterfaceClass"}) {
                writeFile(sysfsPath("usb2/2-0:1.0", attribute), "09");
            }
            return "add usb usb_interface 2-0:1.0";
        }});
    awaitHubDriverFor("2-0:1.0");
}

}  // namespace
}  // namespace android::kus
