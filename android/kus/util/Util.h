// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace android::kus {

/** Made by the platform, with its owner and label; this program never creates it. */
inline constexpr char configDirectory[] = "/data/system/usbdeviceconfig";

inline constexpr char configFilePath[] = "/data/system/usbdeviceconfig/usb_device_config.xml";
inline constexpr char backupFilePath[] =
    "/data/system/usbdeviceconfig/usb_device_config_backup.xml";
inline constexpr char statusFilePath[] = "/data/system/usbdeviceconfig/status.txt";

/** The status text of a daemon that has crashed. */
inline constexpr char crashStatus[] = "Unable to apply the USB Admin config rules";

/** The administrator's rules: their file, the tables it fills, and the questions asked of them. */
class Util {
  public:
    /**
     * Clears the rule tables and fills them from the rules file at `path`, under an exclusive
     * ruleTablesLock. The outcome is in xml_parse_status and errorMessage; a rejection is also
     * written to the status file and leaves in the tables what came before it. Aborts on a number
     * that does not fit a signed 32-bit integer, and crashes on a document without any element.
     */
    static void createMapFromConfig(const std::string& path);

    /**
     * Receives a status text and the line of the rules file that it is about, 0 where there is
     * none. Called with ruleTablesLock held exclusively.
     */
    using StatusWriter = std::function<void(const std::string& message, int line)>;

    /** createMapFromConfig of a file's text, with the status texts going elsewhere: for checks. */
    static void readText(const std::string& text, const StatusWriter& writeStatus);

    /** True for one or more decimal digits and nothing else. */
    static bool isValidNumber(const std::string& s);

    /** The code of a class name, compared as a whole with case, or NO_CLASS. */
    static uint32_t convert(const std::string& name);

    /** "default", "whitelist", "blacklist", or the invalid text of the last rejected file. */
    static std::string getMode();

    static bool validateClass(unsigned int code);
    static bool validateRestrictedClass(unsigned int code);

    /**
     * True when the vendor is listed and it, or any vendor with a greater id, is listed without
     * product ids.
     */
    static bool validateVid(int vid);
    static bool validateVidPid(int vid, int pid);

    /** The name of a USB class or a single input source, or a single blank. */
    static std::string getClassName(int code);

    /** The single input sources in a mask, ascending; empty when it holds none that has a name. */
    static std::vector<int32_t> checkMultiClass(int key_val);

    /**
     * Reads the rules file at `path` for a parse, and keeps its text for backUpRules. Null, with
     * errno, where it cannot be read; else valid until the next of either. Called by the one thread
     * that parses.
     */
    static const std::string* readRules(const std::string& path);

    /** True when the rules file is no longer as it was read last. */
    static bool rulesFileHasChanged();

    /** True when there is a backup, and it is not of what was read last. */
    static bool backupDiffersFromRules();

    /** True when what was read last is what restoreRules left: the backup, or what was there. */
    static bool readWhatWasRestored();

    /**
     * Copies a text file, ending every line with a line feed, and syncs what it wrote. False when a
     * file could not be read or written, but an empty source is true when the destination could not
     * be opened. Empties the destination when there is no source; what cannot be written whole is
     * put back, with an error in the log.
     */
    static bool copyFileContent(std::string src, std::string dst);

    /**
     * Copies the rules file over the backup as copyFileContent does, but as it was read by the last
     * parse, which has accepted it: another file may stand there by now.
     */
    static bool backUpRules();

    /** What restoreRules did. But for kNotOpened, an event of the file's being closed follows. */
    enum class Restored { kWhole, kNotWhole, kNotOpened, kRewritten };

    /**
     * Copies the backup over the rules file as copyFileContent does, unless that has been rewritten
     * since it was read last. `whenHeld` is called just before, if nobody else can write the file
     * then. May be called from a signal handler.
     */
    static Restored restoreRules(const std::function<void()>& whenHeld = [] {});

    /**
     * Replaces the file's content with `message` and syncs it. Silent where it cannot be opened;
     * what cannot be written is put back, with an error in the log.
     */
    static void updateErrorFile(std::string path, std::string message);
};

}  // namespace android::kus
