// SPDX-License-Identifier: Apache-2.0
#include <signal.h>
#include <sys/resource.h>

#include <fstream>

#include "kus_test.h"

namespace android::kus {
namespace {

constexpr char kSource[] = "/data/source";
constexpr char kCopy[] = "/data/copy";
constexpr char kDone[] = "I Usb Device config file copied successfully..!!";

class ConfigFiles : public KusTest {};

TEST_F(ConfigFiles, CopyEndsEveryLineWithALineFeed) {
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"a\nb\n", "a\nb\n"},
        {"cr\r\nlf\r\n", "cr\r\nlf\r\n"},
        {"\n  a b\n\nlast", "\n  a b\n\nlast\n"},
    };
    for (const auto& [source, copy] : cases) {
        writeFile(kSource, source);
        writeFile(kCopy, "an older and longer content that must be gone");
        takeLog();
        EXPECT_TRUE(Util::copyFileContent(kSource, kCopy));
        EXPECT_EQ(readFile(kCopy), copy);
    }
    EXPECT_LOG("I  USB xml src path is /data/source", "I USB xml dest path is /data/copy", "I ",
               "I   a b", "I ", "I last", kDone);
}

TEST_F(ConfigFiles, CopiesThatFail) {
    writeFile(kCopy, "rules");
    EXPECT_FALSE(Util::copyFileContent("/data/missing", kCopy));
    EXPECT_EQ(readFile(kCopy), "");
    EXPECT_LOG(_, _, "E USB device error is source file open", kDone);
    writeFile(kSource, "one\ntwo\n");
    EXPECT_FALSE(Util::copyFileContent(kSource, "/data/none/copy"));
    const std::string error = "E ODM error in dest file open";
    EXPECT_LOG(_, _, error, error, kDone);
    writeFile(kSource, "");
    EXPECT_TRUE(Util::copyFileContent(kSource, "/data/none/copy")) << "nothing is missing";
    takeLog();
    Util::updateErrorFile("/data/none/status", "SUCCESS");
    EXPECT_LOG("I updateErrorFile called with error message : SUCCESS");
    EXPECT_FALSE(fs::exists("/data/none"));
}

TEST_F(ConfigFiles, WhatCannotBeWrittenWholeIsPutBack) {
    writeFile(configFilePath, "longer than the limit");
    writeFile(backupFilePath, "old\n");
    writeFile(statusFilePath, "old");
    Util::readRules(configFilePath);
    // As on a full disk, a part of a file can still be written.
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit full = {4, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
    EXPECT_FALSE(Util::backUpRules());
    Util::updateErrorFile(statusFilePath, "SUCCESS");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(readFile(backupFilePath), "old\n");
    EXPECT_EQ(readFile(statusFilePath), "old");
    const std::string error = ": File too large, it is put back";
    EXPECT_LOG(_, _, "E Could not write " + (backupFilePath + error), "I longer than the limit",
               kDone, _, "E Could not write " + (statusFilePath + error));
}

TEST_F(ConfigFiles, BackupsAndRestoresGoByWhatWasParsed) {
    writeFile(configFilePath, "parsed");
    Util::readRules(configFilePath);
    writeFile(configFilePath, "moved here meanwhile");
    EXPECT_TRUE(Util::backUpRules());
    EXPECT_EQ(readFile(backupFilePath), "parsed\n");
    takeLog();
    EXPECT_EQ(Util::restoreRules(), Util::Restored::kRewritten);
    EXPECT_LOG("I The rules file was rewritten meanwhile, so it stays");
    EXPECT_EQ(readFile(configFilePath), "moved here meanwhile");
    // Missing rules are no rewrite.
    fs::remove(configFilePath);
    EXPECT_EQ(Util::restoreRules(), Util::Restored::kWhole);
    EXPECT_EQ(readFile(configFilePath), "parsed\n");
    for (const char* path : {configFilePath, backupFilePath}) fs::remove(path);
    EXPECT_EQ(Util::restoreRules(), Util::Restored::kNotWhole);
    EXPECT_TRUE(Util::readWhatWasRestored()) << "of that no copy comes";
}

// Between the look at the file and its end, one who opens it waits; one who has it open is awaited.
TEST_F(ConfigFiles, ARestoreIsNeverWrittenOverARewrite) {
    writeFile(backupFilePath, "backup\n");
    writeFile(configFilePath, "refused");
    Util::readRules(configFilePath);
    std::ifstream reader(configFilePath);
    std::thread ending([&] {
        sleep_for(milliseconds(100));
        reader.close();
    });
    std::thread administrator;
    const auto whenHeld = [&] {
        administrator = std::thread([] { writeFile(configFilePath, "good"); });
        sleep_for(milliseconds(100));
    };
    EXPECT_EQ(Util::restoreRules(whenHeld), Util::Restored::kWhole);
    ending.join();
    ASSERT_TRUE(administrator.joinable());
    administrator.join();
    EXPECT_EQ(readFile(configFilePath), "good");
}

}  // namespace
}  // namespace android::kus
