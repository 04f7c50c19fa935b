// SPDX-License-Identifier: Apache-2.0
#include "kusctl.h"
#include "util/Util.h"

namespace android::kus {

std::string rulesText(const std::string& path) {
    std::string text;
    if (const std::string reason = readRulesFile(path, &text); !reason.empty()) {
        const char* hint = path == configFilePath ? " (--rules names another file)" : "";
        fail(path + ": " + reason + hint);
    }
    return text;
}

Rules loadRules(const std::string& path) { return loadRules(path, rulesText(path)); }

Rules loadRules(const std::string& path, const std::string& text) {
    const Verdict verdict = judgeText(text);
    if (verdict.outcome != Verdict::Outcome::kAccepted) {
        fail(path + ": the device would not take these rules: " + verdict.status +
             " (see 'kusctl lint " + path + "')");
    }
    Rules rules;
    rules.parse(text);
    return rules;
}

}  // namespace android::kus
