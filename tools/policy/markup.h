// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// Where elements stand in a text, which the XML library does not tell.
namespace android::kus {

struct ElementPlace {
    /** Of its "<", and behind its end. */
    size_t begin, end;
    /** What stands between its tags; both are `end` where it is one tag, as in "<a/>". */
    size_t contentBegin, contentEnd;
};

struct Markup {
    /** In the order of their start tags, which is the order of a walk over the document. */
    std::vector<ElementPlace> elements;
    /** Where the XML library stops: at a NUL byte, an end tag that closes nothing, or the end. */
    size_t end;
};

/** Of a text that the XML library takes for well-formed. */
Markup findMarkup(const std::string& text);

int lineAt(const std::string& text, size_t position);

}  // namespace android::kus
