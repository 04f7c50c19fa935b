// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <thread>

#include "device_test.h"
#include "process.h"
#include "util/Util.h"

namespace android::kus {
namespace {

class SoakTest : public DeviceTest {};

size_t descriptors(pid_t pid) {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd"), {});
}

TEST_F(SoakTest, DevicesClientsRulesAndReadersComeAndGo) {
    const bool full = getenv("KUS_FULL_RUN") != nullptr;
    const pid_t daemon = daemonPid();
    Plugged stick("stick", std::string(kStick) + " --port 0");
    const auto run = [&](int times) {
        const Again rewrites(3s, [bad = false]() mutable {
            writeFile(configFilePath, (bad = !bad) ? "<broken" : Rules::next().text);
        });
        const Again dumps(1s, [] { shell("kusctl dump; kusctl dump topology"); });
        const Again clients(500ms, [] { Client(2).poke(); });
        for (int i = 0; i < times; ++i) stick.replug();
    };
    run(full ? 50 : 4);
    const size_t descriptorsBefore = descriptors(daemon);
    const long memoryBefore = residentKilobytes(daemon);
    run(full ? 1000 : 10);
    const Rules rules = Rules::rewrite();
    EXPECT_TRUE(eventually([&] { return stick.decision().status == !rules.whitelist; }));
    EXPECT_EQ(daemonPid(), daemon);
    EXPECT_TRUE(eventually([&] { return descriptors(daemon) <= descriptorsBefore; }))
        << descriptors(daemon) << " descriptors, " << descriptorsBefore << " before";
    const long grown = residentKilobytes(daemon) - memoryBefore;
    EXPECT_LT(grown, 1024) << "KiB, from " << memoryBefore;
}

}  // namespace
}  // namespace android::kus
