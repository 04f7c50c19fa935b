// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What the daemon would make of a rules file, and of a device under its rules, by the daemon's own
// parser and decision. It neither prints nor reads files, and asks no service. One thread at a
// time.
namespace android::kus {

/** A vendor or product id that is in no rule. */
inline constexpr int32_t kUnknownId = -1;

/** The USB class of a device of which none is known: in no class rule, and not restricted. */
inline constexpr int32_t kUnnamedClass = -1;

/** The greatest that a device can have. */
inline constexpr int32_t kMaxUsbId = 0xFFFF;
inline constexpr int32_t kMaxUsbClass = 0xFF;

/** What the full names of classes begin with. */
inline constexpr char kUsbClassPrefix[] = "USB_CLASS_";
inline constexpr char kInputSourcePrefix[] = "AINPUT_SOURCE_";

/** The fields of a DeviceInfo that a decision looks at, and what it asks the kernel. */
struct DeviceFacts {
    /** For an input device its input-source bits, with or without the source-class byte. */
    int32_t deviceClass = 0;
    /** Codes of the interfaces of a USB device; empty for an input device. */
    std::vector<int32_t> interfaceClassList;
    int32_t vendorId = kUnknownId;
    int32_t productId = kUnknownId;
    /** 1 for an input device, else 0. */
    int32_t deviceType = 0;
    /** A USB device with a vendor-specific HID interface. */
    bool vendorHid = false;
};

/** What a rule is about: a class, or a vendor, or one of its products. */
struct Subject {
    /** In the table of class names; none where a vendor is meant. */
    std::optional<int32_t> classCode;
    int32_t vendor = kUnknownId;
    int32_t product = kUnknownId;
};

/** The element that names the subject alone. */
std::string ruleFor(const Subject& subject);

/** A device of which nothing is known but the subject. */
DeviceFacts sampleOf(const Subject& subject);

/** The code of a full name, a short name ("mass_storage", "keyboard") or a number. */
std::optional<int32_t> usbClassCode(const std::string& text);
std::optional<int32_t> inputSourceCode(const std::string& text);

/** The bits of the sources without one of which nobody can operate the device. */
int32_t keyboardSources();
int32_t pointerSources();

/** Names of the device's USB classes or input sources, each once; a number for one without. */
std::vector<std::string> classNames(const DeviceFacts& device);

// Rules files

struct Verdict {
    enum class Outcome { kAccepted, kRefused, kCrash } outcome;
    /** What the device's status file would say. */
    std::string status;
    /** Of the rules file, from 1, or 0 where there is none to name. */
    int line;
};

/** "accepted", "refused" or "crash". */
const char* nameOf(Verdict::Outcome outcome);

/** What the parser takes without a word, and hardly anybody means. */
struct Warning {
    /** From 1, or 0 where there is none to name. */
    int line;
    /** A word for programs: see 'kusctl lint --help'. */
    std::string kind;
    std::string message;
    /** What to do about it; empty where that goes without saying. */
    std::string cure;
    /** True for what may well be meant. */
    bool isNote = false;
};

/** The message, and what to do about it. */
std::string withCure(const Warning& warning);

/** The kind of a warning that names what ends the daemon. */
inline constexpr char kCrashKind[] = "crash";

/**
 * Looks through a whole rules file, beyond a first error too, and returns the warnings by line. It
 * gives no verdict, and no text ends it. Of a text that is no well-formed XML it tells the encoding
 * at most.
 */
std::vector<Warning> reviewRules(const std::string& text);

/** The verdict on a text whose parse has ended its process. */
Verdict crashVerdict(const std::vector<Warning>& warnings);

// Decisions

struct Answer {
    /** False, too, for a device that is left to the input subsystem. */
    bool allowed;
    /** The device makes input devices, each of which is asked about. No rule was looked at. */
    bool leftToInput;
    /** The daemon's words; empty for a device that is left to the input subsystem. */
    std::string reason;
    /** It was class rules that matched. */
    bool byClass;
    /** Lines of the rules that matched, ascending. */
    std::vector<int> lines;
    /** Elements that would turn a whitelist's refusal, one of which is enough. */
    std::vector<std::string> remedies;
    /** What reviewRules says of the rule that matched, where that is a surprise. */
    std::vector<Warning> warnings;
};

/** The rules of one file. Several may be held at once. */
class Rules {
  public:
    /** Without a file every device is allowed. */
    Rules() = default;

    /**
     * The daemon's own parse of a text. SOME TEXTS END THE PROCESS, by a signal: where the text is
     * not trusted, try it first in a process (or WebAssembly instance) that may be lost, and see
     * crashVerdict. A refused text leaves the rules above its first error, as it does where the
     * daemon starts with it.
     */
    Verdict parse(const std::string& text);

    /** "default", "whitelist", "blacklist", or what a refused text gave as its mode. */
    const std::string& mode() const { return mode_; }

    Answer decide(const DeviceFacts& device);

    /** The answer alone, for many devices. */
    bool allows(const DeviceFacts& device, std::string* reason);

    /** What the rules' part of the decision logs, line by line. Takes over the process's logger. */
    std::vector<std::string> trace(const DeviceFacts& device);

    /** True when a rule names single products of the vendor. */
    bool namesProductsOf(int32_t vendor) const;

    /** A device for each class, vendor and product that a rule names, and one that none does. */
    std::vector<DeviceFacts> samples() const;

  private:
    class InForce;
    enum class Match { kNone, kClass, kVendor, kProduct };

    void indexLines(const std::string& text);
    static Match matchOf(const std::string& reason);
    std::vector<int> linesOf(const DeviceFacts& device, Match match) const;
    std::vector<Warning> warningsOn(const DeviceFacts& device, Match match) const;
    std::vector<std::string> remediesFor(const DeviceFacts& device) const;

    // The daemon's rule tables while other rules are in them: see rule_tables.h.
    std::string mode_ = "default";
    std::vector<int32_t> classes_;
    std::map<int32_t, std::string> classNames_;
    std::multimap<int32_t, int32_t> products_;
    std::optional<int32_t> lastWholeVendor_;

    /** Rule to the line that gave it first; a whole vendor has ANY_PRODUCT. */
    std::map<int32_t, int> classLines_;
    std::map<std::pair<int32_t, int32_t>, int> productLines_;
};

/** A device that two files decide on differently. */
struct Change {
    DeviceFacts device;
    Answer before, after;
};

/**
 * What `after` decides otherwise, by samples for what either names: a device without ids stands for
 * any device of its class, one without a product for all products of its vendor that neither
 * names, and one without either for all that no rule names.
 */
std::vector<Change> changesBetween(Rules* before, Rules* after);

// Edits

struct Edit {
    /** The whole file as it would be; unchanged where the rules say so already. */
    std::string text;
    /** Why the format has no way to say it; `text` is unchanged then. */
    std::string problem;
};

/**
 * The smallest change of a rules file by which its rules allow (or block) the subject: in a
 * whitelist allowing adds a rule and blocking takes rules away, in a blacklist the other way round.
 * Comments, order and indentation stay. `text` is one that the parser has accepted. What other
 * rules make of the subject is for reviewEdit and changesBetween to tell.
 */
Edit editRules(const std::string& text, bool allow, const Subject& subject);

/** What an edit does not achieve; empty texts where there is nothing to tell. */
struct EditReview {
    /** The rules that decide on the subject all the same: the edit is to be dropped. */
    std::string problem;
    /** Of ids alone nobody can tell which class rules match. */
    std::string note;
};

/** `recorded` is the device itself, where more of it is known than what the rule is about. */
EditReview reviewEdit(Rules* edited, bool allow, const Subject& subject,
                      const std::optional<DeviceFacts>& recorded = {});

}  // namespace android::kus
