// SPDX-License-Identifier: Apache-2.0
#include "markup.h"

#include <algorithm>
#include <string_view>

namespace android::kus {
namespace {

/** Behind the next `mark` from `at`, or at the end. */
size_t behind(std::string_view text, const char* mark, size_t at) {
    const size_t found = text.find(mark, at);
    return found == std::string_view::npos ? text.size() : found + std::string_view(mark).size();
}

/** Behind the ">" of a start tag, whose quoted values may contain one. */
size_t behindStartTag(std::string_view text, size_t at) {
    while (at < text.size() && text[at] != '>') {
        const char c = text[at++];
        if (c != '"' && c != '\'') continue;
        const size_t quote = text.find(c, at);
        at = quote == std::string_view::npos ? text.size() : quote + 1;
    }
    return std::min(at + 1, text.size());
}

}  // namespace

Markup findMarkup(const std::string& whole) {
    const std::string_view text(whole.c_str());  // up to a NUL byte
    Markup markup = {{}, text.size()};
    std::vector<size_t> open;
    for (size_t at = text.find('<'); at < text.size(); at = text.find('<', at)) {
        const auto startsWith = [&](std::string_view mark) {
            return text.substr(at, mark.size()) == mark;
        };
        if (startsWith("<!--")) {
            at = behind(text, "-->", at);
        } else if (startsWith("<![CDATA[")) {
            at = behind(text, "]]>", at);
        } else if (startsWith("<?")) {
            at = behind(text, "?>", at);
        } else if (startsWith("<!")) {
            at = behind(text, ">", at);
        } else if (startsWith("</")) {
            if (open.empty()) {
                markup.end = at;
                break;
            }
            ElementPlace& element = markup.elements[open.back()];
            open.pop_back();
            element.contentEnd = at;
            element.end = at = behind(text, ">", at);
        } else {
            const size_t begin = at;
            at = behindStartTag(text, at);
            if (text[at - 2] != '/') open.push_back(markup.elements.size());
            markup.elements.push_back({begin, at, at, at});
        }
    }
    return markup;
}

int lineAt(const std::string& text, size_t position) {
    return 1 + std::count(text.begin(), text.begin() + position, '\n');
}

}  // namespace android::kus
