// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <filesystem>

#include "kusctl_run.h"

namespace {

namespace fs = std::filesystem;

constexpr char kRules[] = "usb_device_config.xml";
constexpr char kBackup[] = "usb_device_config_backup.xml";

TEST(RestoreTest, RestoresRefusedRulesAlone) {
    const char good[] = "<usbconfig mode='whitelist'/>\n";
    const char otherGood[] = "<usbconfig mode='blacklist'/>\n";
    const char refused[] = "<usbconfig mode='whitelist'><foo/></usbconfig>";
    const char cut[] = "<usbconfig mode='whitelist'><class>USB_CL";
    const char crash[] = "<!-- nothing -->";
    const char* const none = nullptr;
    const struct {
        const char *rules, *backup;
        int status;
        /** In the one line that is printed. */
        const char* text;
    } cases[] = {
        {refused, good, 0, "restored: the rules file was refused (INVALID TAG:foo)"},
        {"", good, 0, "restored: "},
        {crash, good, 0, "(Unable to apply the USB Admin config rules)"},
        {none, good, 0, "restored: "},
        {good, otherGood, 1, "nothing to do"},
        {good, none, 1, "nothing to do"},
        {refused, none, 1, "but the backup is no better (No such file"},
        {refused, "", 1, "but the backup is no better (Error=XML_ERROR_EMPTY"},
        {cut, refused, 1, "but the backup is no better (INVALID TAG:foo)"},
        {none, crash, 1, "but the backup is no better (Unable"},
    };
    for (const auto& [rules, backup, status, text] : cases) {
        SCOPED_TRACE(text);
        Files files;
        if (rules != none) files[kRules] = rules;
        if (backup != none) files[kBackup] = backup;
        enterDevicesFolder(files);
        if (rules != none) fs::create_hard_link(kRules, "other name");
        const Result result = runKusctl("restore");
        EXPECT_EQ(result.status, status);
        EXPECT_THAT(result.out + result.err, testing::HasSubstr(text));
        if (status == 0) files[kRules] = backup;
        // A file that is written in place keeps its other name.
        if (rules != none) files["other name"] = files[kRules];
        EXPECT_EQ(filesHere(), files);
    }
}

TEST(RestoreTest, LeavesWhatIsNoFile) {
    enterDevicesFolder({{kBackup, "<usbconfig mode='whitelist'/>"}});
    fs::create_directory(kRules);
    const std::string path = fs::absolute(kRules);
    EXPECT_EQ(runKusctl("restore"),
              (Result{1, "", "kusctl restore: " + path + ": not a regular file\n"}));
}

}  // namespace
