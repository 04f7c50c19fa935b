// SPDX-License-Identifier: Apache-2.0
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "kus_test.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::EndsWith;
using testing::StartsWith;

constexpr char kSource[] = "/data/source";
constexpr char kCopy[] = "/data/copy";
constexpr char kDone[] = "I Usb Device config file copied successfully..!!";

class ConfigFiles : public KusTest {};

TEST_F(ConfigFiles, CopyEndsEveryLineWithALineFeed) {
    const struct {
        std::string source, copy;
        std::vector<std::string> lines;
    } cases[] = {
        {"", "", {}},
        {"a", "a\n", {"I a"}},
        {"a\nb\n", "a\nb\n", {"I a", "I b"}},
        {"\n  a b\n\nlast", "\n  a b\n\nlast\n", {"I ", "I   a b", "I ", "I last"}},
        {"cr\r\nlf\r\n", "cr\r\nlf\r\n", {"I cr\r", "I lf\r"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.source));
        writeFile(kSource, c.source);
        writeFile(kCopy, "an older and longer content that must be gone");
        EXPECT_TRUE(Util::copyFileContent(kSource, kCopy));
        EXPECT_EQ(readFile(kCopy), c.copy);
        std::vector<std::string> log = {"I  USB xml src path is /data/source",
                                        "I USB xml dest path is /data/copy"};
        log.insert(log.end(), c.lines.begin(), c.lines.end());
        log.push_back(kDone);
        EXPECT_THAT(takeLog(), ElementsAreArray(log));
    }
}

TEST_F(ConfigFiles, CopyOfAMissingSourceEmptiesTheDestination) {
    writeFile(kCopy, "rules");
    EXPECT_FALSE(Util::copyFileContent("/data/missing", kCopy));
    EXPECT_EQ(readFile(kCopy), "");
    EXPECT_THAT(takeLog(), ElementsAre("I  USB xml src path is /data/missing",
                                       "I USB xml dest path is /data/copy",
                                       "E USB device error is source file open", kDone));
}

TEST_F(ConfigFiles, CopyToAClosedDestinationFailsOnceALine) {
    writeFile(kSource, "one\ntwo\n");
    EXPECT_FALSE(Util::copyFileContent(kSource, "/data/none/copy"));
    EXPECT_THAT(
        takeLog(),
        ElementsAre("I  USB xml src path is /data/source", "I USB xml dest path is /data/none/copy",
                    "E ODM error in dest file open", "E ODM error in dest file open", kDone));
    EXPECT_FALSE(std::filesystem::exists("/data/none"));

    writeFile(kSource, "");
    EXPECT_TRUE(Util::copyFileContent(kSource, "/data/none/copy"));
}

/** A full disk: from here on no file can be written beyond this size. */
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t size) {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit = {size, before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }

  private:
    rlimit before_;
};

TEST_F(ConfigFiles, WhatCannotBeWrittenWholeIsPutBack) {
    writeFile(configFilePath, "longer than the limit");
    writeFile(backupFilePath, "old\n");
    writeFile(statusFilePath, "old");
    Util::readRules(configFilePath);
    const FileSizeLimit limit(4);
    EXPECT_FALSE(Util::backUpRules());
    Util::updateErrorFile(statusFilePath, "SUCCESS");
    EXPECT_EQ(readFile(backupFilePath), "old\n");
    EXPECT_EQ(readFile(statusFilePath), "old");
    const std::string error = ": File too large, it is put back";
    EXPECT_THAT(takeLog(),
                ElementsAre(StartsWith("I "), StartsWith("I "),
                            "E Could not write " + std::string(backupFilePath) + error,
                            "I longer than the limit", kDone, StartsWith("I updateErrorFile"),
                            "E Could not write " + std::string(statusFilePath) + error));
}

TEST_F(ConfigFiles, TheBackupIsWhatWasParsed) {
    writeFile(configFilePath, "parsed");
    Util::readRules(configFilePath);
    writeFile(configFilePath, "moved here meanwhile");
    EXPECT_TRUE(Util::backUpRules());
    EXPECT_EQ(readFile(backupFilePath), "parsed\n");
}

// A restore that comes first is overwritten, one that comes later sees that the file is another.
TEST_F(ConfigFiles, ARestoreNeverTakesAFileThatWasWrittenMeanwhile) {
    writeFile(backupFilePath, "backup\n");
    int restored = 0;
    for (int i = 0; i < 2000; ++i) {
        writeFile(configFilePath, "refused");
        Util::readRules(configFilePath);
        const auto wait = [](int spins) {
            for (; spins > 0; --spins) getppid();
        };
        std::thread administrator([&] {
            wait(i % 100 * 100);
            writeFile(configFilePath, "good");
        });
        wait(i % 200 * 100);
        restored += Util::restoreRules() == Util::Restored::kWhole;
        administrator.join();
        ASSERT_EQ(readFile(configFilePath), "good") << "in round " << i;
    }
    EXPECT_GT(restored, 0);
    EXPECT_LT(restored, 2000);
}

TEST_F(ConfigFiles, StatusFileHoldsJustTheText) {
    for (const std::string text : {"Unable to apply the USB Admin config rules", "SUCCESS", ""}) {
        Util::updateErrorFile(statusFilePath, text);
        EXPECT_EQ(readFile(statusFilePath), text);
        EXPECT_THAT(takeLog(),
                    ElementsAre("I updateErrorFile called with error message : " + text));
    }
}

TEST_F(ConfigFiles, StatusFileWithoutDirectoryIsNotWritten) {
    std::filesystem::remove_all("/data/system");
    Util::updateErrorFile(statusFilePath, "SUCCESS");
    EXPECT_FALSE(std::filesystem::exists("/data/system"));
    EXPECT_THAT(takeLog(), ElementsAre("I updateErrorFile called with error message : SUCCESS"));
}

}  // namespace
}  // namespace android::kus
