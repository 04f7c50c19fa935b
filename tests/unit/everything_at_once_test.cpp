// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "service_test.h"
#include "usb_tree.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using namespace std::chrono_literals;

// For the thread sanitizer. That the answers are right is the business of other tests; here they
// only have to be those of one file.
TEST_F(ServiceTest, EightThreadsCallEverythingWhileRulesAreRewritten) {
    const std::string accepted[] = {
        "<usbconfig mode=\"whitelist\"><class>USB_CLASS_AUDIO</class></usbconfig>",
        "<usbconfig mode=\"blacklist\"><class>USB_CLASS_MASS_STORAGE</class></usbconfig>"};
    const char* const rewrites[] = {accepted[0].c_str(), "<usbconfig mode=\"whitelist\"><foo/>",
                                    accepted[1].c_str(), "<broken"};
    writeFile("/sys/devices/platform/soc/a800000.ssusb/mode", "host");
    for (const int id : {1, 2, 3}) {
        const std::string name = "1-" + std::to_string(id);
        addDevice(name, id);
        addInterface(name + ":1.0", id == 2 ? 8 : 1);
    }
    // Never ended: it waits in a read of its own inotify descriptor.
    static const bool observed = [] {
        KUsbService::registerFileObserverViaThread();
        takeLogUntil("registered successfully file observer");
        return true;
    }();
    EXPECT_TRUE(observed);
    loadRules(accepted[0]);
}

}  // namespace
}  // namespace android::kus
