// SPDX-License-Identifier: Apache-2.0
#include <android-base/file.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>

#include "kusctl_run.h"

namespace {

namespace fs = std::filesystem;
using android::base::ReadFileToString;
using android::base::WriteStringToFile;
using testing::HasSubstr;

constexpr char kDirectory[] = "/data/system/usbdeviceconfig";
constexpr char kRules[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
constexpr char kBackup[] = "/data/system/usbdeviceconfig/usb_device_config_backup.xml";
constexpr char kGood[] = "<usbconfig mode=\"whitelist\"/>\n";
constexpr char kOtherGood[] = "<usbconfig mode=\"blacklist\"/>\n";
constexpr char kRefused[] = "<usbconfig mode=\"whitelist\"><foo/></usbconfig>";
constexpr char kCut[] = "<usbconfig mode=\"whitelist\"><class>USB_CL";
constexpr char kCrash[] = "<!-- nothing -->";
constexpr char kNone[] = "(no file)";

void put(const char* path, const std::string& content) {
    fs::remove_all(path);
    if (content == kNone) return;
    ASSERT_TRUE(WriteStringToFile(content, path));
}

std::string contentOf(const char* path) {
    std::string content;
    return ReadFileToString(path, &content) ? content : kNone;
}

struct Files {
    const char* name;
    const char* rules;
    const char* backup;
    int status;
    /** In the one line that is printed. */
    const char* text;
};

class RestoreTest : public testing::TestWithParam<Files> {};

TEST_P(RestoreTest, RestoresRefusedRulesAlone) {
    const auto& [name, rules, backup, status, text] = GetParam();
    fs::create_directories(kDirectory);
    put(kRules, rules);
    put(kBackup, backup);
    struct stat before = {}, after = {};
    stat(kRules, &before);
    const Result result = runKusctl("/", {"restore"});
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(result.out + result.err, HasSubstr(text));
    EXPECT_EQ(contentOf(kRules), status == 0 ? backup : rules);
    EXPECT_EQ(contentOf(kBackup), backup);
    stat(kRules, &after);
    if (before.st_ino != 0) {
        EXPECT_EQ(after.st_ino, before.st_ino) << "not written in place";
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, RestoreTest,
    testing::Values(
        Files{"Refused", kRefused, kGood, 0,
              "restored: the rules file was refused (INVALID TAG:foo)"},
        Files{"Cut", kCut, kGood, 0, "restored: "}, Files{"Empty", "", kGood, 0, "restored: "},
        Files{"EndsTheDaemon", kCrash, kGood, 0, "(Unable to apply the USB Admin config rules)"},
        Files{"Missing", kNone, kGood, 0, "restored: "},
        Files{"Accepted", kGood, kOtherGood, 1, "nothing to do"},
        Files{"AcceptedWithoutBackup", kGood, kNone, 1, "nothing to do"},
        Files{"NoBackup", kRefused, kNone, 1, "but the backup is no better (No such file"},
        Files{"EmptyBackup", kRefused, "", 1, "but the backup is no better (Error=XML_ERROR_EMPTY"},
        Files{"RefusedBackup", kCut, kRefused, 1, "but the backup is no better (INVALID TAG:foo)"},
        Files{"BackupEndsTheDaemon", kNone, kCrash, 1, "but the backup is no better (Unable"}),
    [](const auto& info) { return info.param.name; });

TEST(RestoreTest, LeavesWhatIsNoFile) {
    fs::remove_all(kRules);
    fs::create_directories(kRules);
    put(kBackup, kGood);
    EXPECT_EQ(runKusctl("/", {"restore"}),
              (Result{1, "", std::string("kusctl restore: ") + kRules + ": not a regular file\n"}));
    fs::remove(kRules);
}

}  // namespace
