// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <stdlib.h>

#include "kus_test.h"

namespace android::kus {
namespace {

constexpr char kDefaultRules[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<usbconfig mode=\"default\">\n"
    "</usbconfig>";

/** Runs the real daemon in this private world. */
class Startup : public KusTest {
  protected:
    void run(const std::string& arguments) {
        status_ = system((KUSD_PATH " " + arguments + " 2>/data/log").c_str());
        log_.clear();
        // "kusd I 11-21 01:50:11  5259  5259 main.cpp:23] text"
        for (const std::string& line : base::Split(readFile("/data/log"), "\n")) {
            const size_t bracket = line.find("] ");
            if (!base::StartsWith(line, "kusd ") || bracket == std::string::npos) continue;
            log_.push_back(line.substr(5, 2) + line.substr(bracket + 2));
        }
    }

    int status_ = -1;
    Texts log_;
};

TEST_F(Startup, TasksWriteTheDefaultRules) {
    const std::string draft = std::string(configFilePath) + ".new";
    writeFile(draft, std::string(100, 'x'));
    run("run-startup-tasks");
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(readFile(configFilePath), kDefaultRules);
    EXPECT_FALSE(fs::exists(statusFilePath));
    EXPECT_THAT(log_, ElementsAre(StartsWith("I kus main called with argc: 2and argv: 0x"),
                                  "I kus main called with run-startup-tasks",
                                  "I Directory exist, creating file"));

    fs::remove(configFilePath);
    fs::create_symlink("/nowhere", configFilePath);
    run("run-startup-tasks");
    EXPECT_EQ(log_.back(), std::string("E Could not write ") + configFilePath + ": File exists");
    EXPECT_FALSE(fs::exists(draft));
}

TEST_F(Startup, TasksLeaveWhatIsThereAndCreateNoDirectory) {
    const std::string creates = "I Directory exist, creating file", no = "I no Directory exist";
    const std::pair<std::string, std::string> cases[] = {
        {configFilePath, creates},
        {std::string(configFilePath) + "/a directory", creates},
        {configDirectory, no},
        {"/data/system/other", no}};
    for (const auto& [path, log] : cases) {
        fs::remove_all(configDirectory);
        writeFile(path, "mine");
        run("run-startup-tasks more arguments");
        EXPECT_EQ(status_, 0);
        EXPECT_EQ(readFile(path), "mine");
        EXPECT_EQ(log_.back(), log);
    }
    EXPECT_FALSE(fs::exists(configDirectory));
}

// There is no binder driver here, so the daemon aborts soon after it has loaded the rules.
TEST_F(Startup, AnyOtherArgumentStartsTheDaemon) {
    writeFile(configFilePath, kDefaultRules);
    run("run-startup-tasks-x");
    EXPECT_NE(status_, 0);
    EXPECT_EQ(log_[1], "I  parsing register createmap called");
    EXPECT_THAT(log_, testing::IsSupersetOf({"I Segmentation faultsignum6", "I Stack Trace"}));
    EXPECT_THAT(log_, Not(Contains(HasSubstr("sysfs path")))) << "no controller was off";
    EXPECT_EQ(readFile(statusFilePath), crashStatus);
    EXPECT_EQ(readFile(configFilePath), std::string(kDefaultRules) + "\n") << "no copy";
}

}  // namespace
}  // namespace android::kus
