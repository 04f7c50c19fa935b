// SPDX-License-Identifier: Apache-2.0
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <tinyxml2.h>

#include <algorithm>
#include <map>

#include "markup.h"
#include "policy.h"
#include "util/Util.h"

namespace android::kus {
namespace {

using tinyxml2::XMLElement;

constexpr char kIndent[] = "  ";

bool isId(const char* text, int32_t id) {
    int32_t number;
    return text != nullptr && base::ParseInt(text, &number) && number == id;
}

std::string inLine(const XMLElement& element) {
    return "line " + std::to_string(element.GetLineNum());
}

/** A rules file whose elements can be found in its text. */
class Editor {
  public:
    explicit Editor(const std::string& text);

    /** Null where the text is none that can be edited. */
    const XMLElement* root() const { return root_; }
    std::string mode() const { return root_->Attribute("mode"); }

    /** Adds or takes away rules; returns the reason where that cannot be. */
    std::string add(const Subject& subject);
    std::string remove(const Subject& subject);

    std::string text;

  private:
    std::string addClass(const Subject& subject);
    std::string addVendor(const Subject& subject);
    std::string removeProduct(const Subject& subject);

    void mapElements(const XMLElement& element, const std::vector<ElementPlace>& places,
                     size_t* next);
    std::vector<const XMLElement*> rulesNamed(const char* name) const;
    /** Those of the class, or those of the vendor, whatever their products. */
    std::vector<const XMLElement*> rulesFor(const Subject& subject) const;

    /** What stands before the element in its line. */
    std::string indentOf(const ElementPlace& place) const;
    bool startsLine(const ElementPlace& place) const;
    std::string lineEnd() const;
    size_t behindComment(size_t position) const;
    void insertAfter(const XMLElement& element, const std::string& added);
    void insertFirst(const XMLElement& parent, const std::string& added);
    void erase(const std::vector<const XMLElement*>& elements);

    tinyxml2::XMLDocument document_;
    const XMLElement* root_ = nullptr;
    std::map<const XMLElement*, ElementPlace> places_;
};

Editor::Editor(const std::string& rules)
    : text(rules), document_(/*processEntities=*/true, tinyxml2::PRESERVE_WHITESPACE) {
    if (document_.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) return;
    const XMLElement* root = document_.RootElement();
    if (root == nullptr || root->Attribute("mode") == nullptr) return;
    const Markup markup = findMarkup(text);
    size_t next = 0;
    mapElements(*root, markup.elements, &next);
    if (places_.size() == next) root_ = root;
}

// Both walks meet the elements in the same order.
void Editor::mapElements(const XMLElement& element, const std::vector<ElementPlace>& places,
                         size_t* next) {
    if (*next < places.size()) places_.emplace(&element, places[*next]);
    ++*next;
    for (auto* child = element.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        mapElements(*child, places, next);
    }
}

std::vector<const XMLElement*> Editor::rulesNamed(const char* name) const {
    std::vector<const XMLElement*> rules;
    for (auto* rule = root_->FirstChildElement(name); rule != nullptr;
         rule = rule->NextSiblingElement(name)) {
        rules.push_back(rule);
    }
    return rules;
}

std::vector<const XMLElement*> Editor::rulesFor(const Subject& subject) const {
    std::vector<const XMLElement*> rules = rulesNamed(subject.classCode ? "class" : "vid");
    const auto isOther = [&](const XMLElement* rule) {
        if (!subject.classCode) return !isId(rule->Attribute("vendorid"), subject.vendor);
        return Util::convert(rule->GetText()) != static_cast<uint32_t>(*subject.classCode);
    };
    rules.erase(std::remove_if(rules.begin(), rules.end(), isOther), rules.end());
    return rules;
}

std::string Editor::add(const Subject& subject) {
    return subject.classCode ? addClass(subject) : addVendor(subject);
}

std::string Editor::addClass(const Subject& subject) {
    if (Util::validateRestrictedClass(*subject.classCode)) {
        return Util::getClassName(*subject.classCode) +
               " is a restricted class, which no rule may name: name the devices by vendor and "
               "product";
    }
    if (!rulesFor(subject).empty()) return "";
    const std::vector<const XMLElement*> rules = rulesNamed("class");
    if (rules.empty()) {
        insertFirst(*root_, ruleFor(subject));
    } else {
        insertAfter(*rules.back(), ruleFor(subject));
    }
    return "";
}

std::string Editor::addVendor(const Subject& subject) {
    const XMLElement* withProducts = nullptr;
    for (const XMLElement* rule : rulesFor(subject)) {
        const XMLElement* listed = rule->FirstChildElement("pid");
        if (listed == nullptr) return "";
        for (; listed != nullptr; listed = listed->NextSiblingElement()) {
            if (isId(listed->GetText(), subject.product)) return "";
        }
        withProducts = rule;
    }
    if (withProducts != nullptr && subject.product != kUnknownId) {
        insertAfter(*withProducts->LastChildElement(),
                    "<pid>" + std::to_string(subject.product) + "</pid>");
        return "";
    }
    if (root_->FirstChildElement() == nullptr) {
        insertFirst(*root_, ruleFor(subject));
    } else {
        const std::vector<const XMLElement*> vendors = rulesNamed("vid");
        insertAfter(vendors.empty() ? *root_->LastChildElement() : *vendors.back(),
                    ruleFor(subject));
    }
    return "";
}

std::string Editor::remove(const Subject& subject) {
    if (!subject.classCode && subject.product != kUnknownId) return removeProduct(subject);
    erase(rulesFor(subject));
    return "";
}

std::string Editor::removeProduct(const Subject& subject) {
    std::vector<const XMLElement*> removed;
    for (const XMLElement* rule : rulesFor(subject)) {
        const XMLElement* product = rule->FirstChildElement("pid");
        if (product == nullptr) {
            return "the rule in " + inLine(*rule) + " is for every product of vendor " +
                   std::to_string(subject.vendor) +
                   ", and there are no exceptions: list the other products instead";
        }
        std::vector<const XMLElement*> products;
        bool others = false, otherPids = false;
        for (; product != nullptr; product = product->NextSiblingElement()) {
            if (isId(product->GetText(), subject.product)) {
                products.push_back(product);
            } else {
                others = true;
                otherPids |= product->Name() == std::string("pid");
            }
        }
        // Without its last 'pid' the rule would be for the whole vendor.
        if (others && !otherPids) {
            return "the 'vid' in " + inLine(*rule) + " would be left without a 'pid'";
        }
        if (!others) products = {rule};
        removed.insert(removed.end(), products.begin(), products.end());
    }
    erase(removed);
    return "";
}

std::string Editor::indentOf(const ElementPlace& place) const {
    const size_t lineBegin = text.rfind('\n', place.begin) + 1;  // 0 in the first line
    return text.substr(lineBegin, place.begin - lineBegin);
}

bool Editor::startsLine(const ElementPlace& place) const {
    return base::Trim(indentOf(place)).empty();
}

std::string Editor::lineEnd() const {
    return text.find("\r\n") == std::string::npos ? "\n" : "\r\n";
}

/** Behind the comments on the rest of the line, if it has nothing but comments. */
size_t Editor::behindComment(size_t position) const {
    size_t at = position;
    while (true) {
        const size_t next = text.find_first_not_of(" \t\r", at);
        if (next == std::string::npos || text[next] == '\n') return at;
        const size_t end =
            text.compare(next, 4, "<!--") == 0 ? text.find("-->", next) : std::string::npos;
        if (end == std::string::npos || text.find('\n', next) < end) return position;
        at = end + 3;
    }
}

void Editor::insertAfter(const XMLElement& element, const std::string& added) {
    const ElementPlace& place = places_.at(&element);
    if (startsLine(place)) {
        text.insert(behindComment(place.end), lineEnd() + indentOf(place) + added);
    } else {
        text.insert(place.end, added);
    }
}

void Editor::insertFirst(const XMLElement& parent, const std::string& added) {
    const ElementPlace& place = places_.at(&parent);
    const std::string line = lineEnd() + (startsLine(place) ? indentOf(place) : "");
    if (text[place.contentBegin - 2] == '/') {
        const std::string tag = std::string("</") + parent.Name() + ">";
        const size_t tagEnd = text.find_last_not_of(" \t\r\n", place.end - 3) + 1;
        text.replace(tagEnd, place.end - tagEnd, ">" + line + kIndent + added + line + tag);
        return;
    }
    const size_t at = behindComment(place.contentBegin);
    const bool ended = text.find('\n', at) < place.contentEnd;
    text.insert(at, line + kIndent + added + (ended ? "" : line));
}

// From the last one, so that the places before stay right.
void Editor::erase(const std::vector<const XMLElement*>& elements) {
    for (auto element = elements.rbegin(); element != elements.rend(); ++element) {
        const ElementPlace& place = places_.at(*element);
        size_t begin = place.begin, end = place.end;
        if (startsLine(place)) {
            // Its whole line, or up to a comment, which keeps the indentation.
            end = text.find_first_not_of(" \t\r", end);
            if (text[end] == '\n') {
                begin = text.rfind('\n', begin) + 1;
                ++end;
            }
        }
        text.erase(begin, end - begin);
    }
}

std::string linesText(const std::vector<int>& lines) {
    std::vector<std::string> texts;
    for (const int line : lines) texts.push_back(std::to_string(line));
    return (lines.size() == 1 ? "line " : "lines ") + base::Join(texts, ", ");
}

/** Of other rules that decide on the device all the same; empty where none do. */
std::string contradiction(Rules* rules, bool allow, const DeviceFacts& device) {
    const Answer answer = rules->decide(device);
    if (answer.allowed == allow) return "";
    std::string text = answer.byClass         ? "a class rule"
                       : answer.lines.empty() ? "the rules"
                                              : "a rule";
    text += allow ? " would still refuse it" : " would still allow it";
    if (!answer.lines.empty()) text += ": " + linesText(answer.lines);
    for (const Warning& warning : answer.warnings) text += "; " + withCure(warning);
    return text;
}

std::string classRulesText(Rules* rules, bool allow) {
    std::vector<int> lines;
    for (const DeviceFacts& device : rules->samples()) {
        if (device.vendorId != kUnknownId) continue;
        for (const int line : rules->decide(device).lines) lines.push_back(line);
    }
    if (lines.empty()) return "";
    std::sort(lines.begin(), lines.end());
    return std::string("class rules would still ") + (allow ? "refuse" : "allow") +
           " a device of theirs, by whatever vendor: " + linesText(lines);
}

}  // namespace

Edit editRules(const std::string& text, bool allow, const Subject& subject) {
    Editor editor(text);
    if (editor.root() == nullptr) return {text, "the file cannot be edited"};
    const std::string mode = editor.mode();
    if (mode == "default") {
        if (allow) return {text, ""};
        return {text, "mode 'default' allows every device: only a whitelist or a blacklist blocks"};
    }
    const std::string problem =
        allow == (mode == "whitelist") ? editor.add(subject) : editor.remove(subject);
    return {problem.empty() ? editor.text : text, problem};
}

EditReview reviewEdit(Rules* edited, bool allow, const Subject& subject,
                      const std::optional<DeviceFacts>& recorded) {
    EditReview review;
    review.problem = contradiction(edited, allow, recorded ? *recorded : sampleOf(subject));
    const bool added = allow == (edited->mode() == "whitelist");
    const bool byIdsAlone = !subject.classCode && !recorded;
    if (review.problem.empty() && !added && byIdsAlone) {
        review.note = classRulesText(edited, allow);
    }
    return review;
}

}  // namespace android::kus
