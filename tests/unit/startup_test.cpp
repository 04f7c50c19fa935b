// SPDX-License-Identifier: Apache-2.0
#include <android-base/strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "kus_test.h"
#include "util/Util.h"

namespace fs = std::filesystem;

namespace android::kus {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::MatchesRegex;
using testing::Not;

constexpr char kDefaultRules[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<usbconfig mode=\"default\">\n"
    "</usbconfig>";

/** Runs the real daemon in this private world. */
class Startup : public KusTest {
  protected:
    void run(const std::vector<const char*>& arguments) {
        std::vector<const char*> argv = {KUSD_PATH};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        argv.push_back(nullptr);
        const std::string output = stderrOf([&] {
            const pid_t child = fork();
            if (child == 0) {
                execv(KUSD_PATH, const_cast<char**>(argv.data()));
                _exit(127);
            }
            ASSERT_EQ(waitpid(child, &status_, 0), child);
        });
        // "kusd I 11-21 01:50:11  5259  5259 main.cpp:23] text"
        for (const std::string& line : base::Split(output, "\n")) {
            const size_t bracket = line.find("] ");
            if (!base::StartsWith(line, "kusd ") || bracket == std::string::npos) continue;
            log_.push_back(line.substr(5, 2) + line.substr(bracket + 2));
        }
    }

    int status_ = -1;
    std::vector<std::string> log_;
};

TEST_F(Startup, TasksWriteTheDefaultRules) {
    run({"run-startup-tasks"});
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(readFile(configFilePath), kDefaultRules);
    EXPECT_EQ(fs::file_size(configFilePath), 78u);
    EXPECT_FALSE(fs::exists(statusFilePath));
    EXPECT_THAT(log_, ElementsAre(MatchesRegex("I kus main called with argc: 2and argv: "
                                               "0x[0-9a-f]+"),
                                  "I kus main called with run-startup-tasks",
                                  "I Directory exist, creating file"));
    // The daemon accepts them.
    Util::createMapFromConfig(configFilePath);
    EXPECT_EQ(Util::getMode(), "default");
}

TEST_F(Startup, TasksLeaveWhatIsThere) {
    writeFile(configFilePath, "mine");
    run({"run-startup-tasks", "more", "arguments"});
    EXPECT_EQ(readFile(configFilePath), "mine");
    EXPECT_EQ(log_.back(), "I Directory exist, creating file");
    fs::remove(configFilePath);
    fs::create_directory(configFilePath);
    run({"run-startup-tasks"});
    EXPECT_EQ(status_, 0);
    EXPECT_TRUE(fs::is_directory(configFilePath));
}

TEST_F(Startup, TasksCreateNoDirectory) {
    const fs::path directory = fs::path(configFilePath).parent_path();
    fs::remove_all(directory);
    run({"run-startup-tasks"});
    EXPECT_EQ(status_, 0);
    EXPECT_FALSE(fs::exists(directory));
    writeFile(directory, "a file");
    run({"run-startup-tasks"});
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(readFile(directory), "a file");
    EXPECT_EQ(std::count(log_.begin(), log_.end(), "I no Directory exist"), 2);
}

// There is no service manager here, so the daemon ends soon after it has loaded the rules.
TEST_F(Startup, AnyOtherArgumentStartsTheDaemon) {
    writeFile(configFilePath, kDefaultRules);
    for (const std::vector<const char*>& arguments :
         {std::vector<const char*>{"run-startup-tasks-x"}, {"RUN-STARTUP-TASKS", "more"}}) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        log_.clear();
        run(arguments);
        EXPECT_NE(status_, 0);
        EXPECT_THAT(log_, Not(Contains("I kus main called with run-startup-tasks")));
        EXPECT_THAT(log_, Contains("I  parsing register createmap called"));
        EXPECT_EQ(log_[0].find("I kus main called with argc: " +
                               std::to_string(arguments.size() + 1) + "and argv: 0x"),
                  0u);
    }
}

}  // namespace
}  // namespace android::kus
