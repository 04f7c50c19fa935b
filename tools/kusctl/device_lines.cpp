// SPDX-License-Identifier: Apache-2.0
#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <memory>

#include "kusctl.h"

namespace android::kus {
namespace {

using std::string_view;

constexpr char kByteOrderMark[] = "\xEF\xBB\xBF";
constexpr size_t kLongestLine = 1 << 20;
constexpr size_t kMostClasses = 255;
constexpr uint64_t kLinesBetweenLooks = 4096;
constexpr std::chrono::milliseconds kProgressInterval(500);

/** Bytes that make up a line, without its end. */
class LineReader {
  public:
    explicit LineReader(FILE* file) : file_(file), buffer_(kLongestLine) {}

    /** False at the end. A line that does not fit is cut off, and `whole` false. */
    bool next(string_view* line, bool* whole) {
        *whole = true;
        while (true) {
            const char* begin = buffer_.data() + begin_;
            const size_t size = end_ - begin_;
            const void* newline = memchr(begin, '\n', size);
            if (newline != nullptr) {
                *line = {begin, static_cast<size_t>(static_cast<const char*>(newline) - begin)};
                begin_ += line->size() + 1;
                return true;
            }
            if (size == buffer_.size()) {
                *whole = false;
                begin_ = end_ = 0;
            }
            if (!fill()) {
                *line = {buffer_.data() + begin_, end_ - begin_};
                begin_ = end_;
                return !line->empty() || !*whole;
            }
        }
    }

  private:
    bool fill() {
        memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        const size_t added = fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_);
        end_ += added;
        return added > 0;
    }

    FILE* const file_;
    std::vector<char> buffer_;
    size_t begin_ = 0, end_ = 0;
};

/**
 * Walks over one JSON value, and gives out pieces of the text itself. The library that kusctl
 * writes JSON with takes five microseconds for such a line, more than all the rest of an answer.
 */
class JsonWalker {
  public:
    explicit JsonWalker(string_view text) : at_(text.data()), end_(at_ + text.size()) {}

    bool atEnd() {
        skipBlanks();
        return at_ == end_;
    }

    bool isAt(char c) {
        skipBlanks();
        return at_ != end_ && *at_ == c;
    }

    bool take(char c) {
        if (!isAt(c)) return false;
        ++at_;
        return true;
    }

    /** With its escapes, without its quotes. */
    bool string(string_view* text) {
        if (!take('"')) return false;
        const char* begin = at_;
        for (; at_ != end_ && *at_ != '"'; ++at_) {
            if (static_cast<unsigned char>(*at_) < 0x20) return false;
            if (*at_ == '\\' && ++at_ == end_) return false;
        }
        if (at_ == end_) return false;
        *text = {begin, static_cast<size_t>(at_++ - begin)};
        return true;
    }

    bool integer(int32_t* number) {
        skipBlanks();
        const auto [end, error] = std::from_chars(at_, end_, *number);
        if (error != std::errc()) return false;
        at_ = end;
        return at_ == end_ || !isInNumber(*at_);  // or it is 1.5 or 1e5
    }

    bool integerText(string_view* text) {
        skipBlanks();
        const char* begin = at_;
        int32_t number;
        if (!integer(&number)) return false;
        *text = {begin, static_cast<size_t>(at_ - begin)};
        return true;
    }

    /** Calls `element` at each one, which has to take it. */
    template <typename Element>
    bool array(const Element& element) {
        if (!take('[')) return false;
        if (take(']')) return true;
        do {
            if (!element()) return false;
        } while (take(','));
        return take(']');
    }

    template <typename Member>
    bool object(const Member& member) {
        if (!take('{')) return false;
        if (take('}')) return true;
        do {
            string_view key;
            if (!string(&key) || !take(':') || !member(key)) return false;
        } while (take(','));
        return take('}');
    }

    bool skip(int depth = 0) {
        skipBlanks();
        if (at_ == end_ || depth > kDeepest) return false;
        string_view ignored;
        switch (*at_) {
            case '"':
                return string(&ignored);
            case '[':
                return array([&] { return skip(depth + 1); });
            case '{':
                return object([&](string_view) { return skip(depth + 1); });
        }
        const char* begin = at_;
        while (at_ != end_ && isInNumber(*at_)) ++at_;
        return at_ != begin;
    }

    const char* position() const { return at_; }

    void skipBlanks() {
        while (at_ != end_ && (*at_ == ' ' || *at_ == '\t' || *at_ == '\r')) ++at_;
    }

  private:
    static constexpr int kDeepest = 100;

    /** In true, false and null, too. */
    static bool isInNumber(char c) {
        return isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
    }

    const char* at_;
    const char* const end_;
};

/** What a line says of a device. */
class LineParser {
  public:
    LineParser(string_view line, DeviceLine* device) : json_(line), result_(device) {}

    /** Why the line is no device, or an empty text. */
    std::string parse() {
        *result_ = {};
        if (!parseDevice() || !json_.atEnd()) {
            return problem_.empty() ? "not one JSON object" : problem_;
        }
        if (passedOver()) return "";
        for (const auto& [key, given] :
             {std::pair("vendor", vendor_), std::pair("product", product_),
              std::pair("classes", classes_)}) {
            if (!given) return std::string("without \"") + key + "\"";
        }
        return resolve();
    }

    /** A line of 'kusctl watch' that tells no new device. */
    bool passedOver() const { return !event_.empty() && event_ != "added"; }

  private:
    bool parseDevice() {
        json_.skipBlanks();
        const char* begin = json_.position();
        const bool whole = json_.object([&](string_view key) { return parseMember(key); });
        // The device of an event ends before the event does, which is what stays.
        result_->json = {begin, static_cast<size_t>(json_.position() - begin)};
        return whole;
    }

    bool parseMember(string_view key) {
        DeviceFacts& device = result_->device;
        if (key == "vendor") return vendor_ = expect(json_.integer(&device.vendorId), "vendor");
        if (key == "product") return product_ = expect(json_.integer(&device.productId), "product");
        if (key == "name" && !json_.isAt('n')) return expect(json_.string(&result_->name), "name");
        if (key == "kind") return expect(json_.string(&kind_), "kind");
        if (key == "event" && json_.isAt('"')) return expect(json_.string(&event_), "event");
        if (key == "device" && !nested_ && json_.isAt('{')) {
            nested_ = true;
            return parseDevice();
        }
        if (key != "classes") return json_.skip();
        names_.clear();
        return classes_ = expect(json_.array([&] {
                   string_view name;
                   if (!json_.string(&name) && !json_.integerText(&name)) return false;
                   names_.push_back(name);
                   return true;
               }),
                                 "classes");
    }

    bool expect(bool taken, const char* key) {
        if (!taken) problem_ = std::string("a \"") + key + "\" that is none";
        return taken;
    }

    std::string resolve() {
        DeviceFacts& device = result_->device;
        if (kind_ != "" && kind_ != "usb" && kind_ != "input") {
            return "a \"kind\" that is neither \"usb\" nor \"input\"";
        }
        if (names_.size() > kMostClasses) return "more than 255 classes";
        device.deviceType = kind_ == "input" ? 1 : 0;
        for (const string_view name : names_) {
            const std::string text(name);
            const auto code = device.deviceType == 0 ? usbClassCode(text) : inputSourceCode(text);
            if (!code) return "an unknown class '" + text + "'";
            if (device.deviceType == 0) {
                device.interfaceClassList.push_back(*code);
            } else {
                device.deviceClass |= *code;
            }
        }
        if (device.deviceType == 0 && names_.empty()) return "a USB device without classes";
        // The service records no other device of HID interfaces alone.
        device.vendorHid = device.deviceType == 0;
        return "";
    }

    JsonWalker json_;
    DeviceLine* const result_;
    std::string problem_;
    bool nested_ = false, vendor_ = false, product_ = false, classes_ = false;
    string_view kind_, event_;
    std::vector<string_view> names_;
};

/** A line on a terminal that says how far the work has come. */
class Progress {
  public:
    explicit Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO)) {}
    ~Progress() { clear(); }

    /** Before another line goes to the terminal. */
    void clear() {
        if (shown_) fputs("\r\033[K", stderr);
    }

    void at(uint64_t line) {
        if (!shown_ || line % kLinesBetweenLooks != 0) return;
        const auto now = std::chrono::steady_clock::now();
        if (now - last_ < kProgressInterval) return;
        last_ = now;
        fprintf(stderr, "\r%" PRIu64 " lines", line);
    }

  private:
    const bool shown_;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace

DeviceCounts forEachDevice(const std::string& path, bool showProgress,
                           const std::function<void(const DeviceLine&)>& take) {
    const bool standardInput = path == "-";
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        standardInput ? stdin : fopen(path.c_str(), "re"), standardInput ? fflush : fclose);
    if (file == nullptr) fail(path + ": " + strerror(errno));

    DeviceCounts counts = {};
    Progress progress(showProgress);
    LineReader lines(file.get());
    DeviceLine device;
    string_view line;
    bool whole;
    for (uint64_t number = 1; lines.next(&line, &whole); ++number) {
        progress.at(number);
        if (number == 1 && line.substr(0, strlen(kByteOrderMark)) == kByteOrderMark) {
            line.remove_prefix(strlen(kByteOrderMark));
        }
        if (line.find_first_not_of(" \t\r") == string_view::npos) continue;
        LineParser parser(line, &device);
        const std::string problem = whole ? parser.parse() : "longer than 1 MiB";
        if (!problem.empty()) {
            ++counts.others;
            progress.clear();
            note((standardInput ? "" : path + ": ") + "line " + std::to_string(number) +
                 " is no device: " + problem);
        } else if (!parser.passedOver()) {
            ++counts.devices;
            take(device);
        }
    }
    if (ferror(file.get())) {
        const int error = errno;
        progress.clear();
        fail(path + ": " + strerror(error));
    }
    return counts;
}

std::string unescaped(string_view text) {
    if (text.find('\\') == string_view::npos) return std::string(text);
    const std::string quoted = "\"" + std::string(text) + "\"";
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    const bool read = reader->parse(quoted.data(), quoted.data() + quoted.size(), &value, nullptr);
    return read && value.isString() ? value.asString() : std::string(text);
}

}  // namespace android::kus
