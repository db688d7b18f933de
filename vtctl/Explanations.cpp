#include "vtctl/Explanations.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Velto/VTExplanation.h"
#include "Velto/VTForm.h"
#include "Velto/VTInfoKeys.h"
#include "Velto/VTProtocol.h"
#include "vtctl/Nearest.h"
#include "vtctl/Terminal.h"

namespace explanations {

namespace {

constexpr char kIdentifierRule[] = "KXExtensionIdentifier";
constexpr std::string_view kEntitlementRule = "ENTITLEMENT:";

std::string textIn(mox::View dictionary, const char* key) {
    const auto found = dictionary.find(key);
    return std::string{found ? found->string().value_or("") : ""};
}

Answer answerFrom(mox::View entry) {
    namespace Key = VTExplanationKey;
    const auto text = [&](const char* key) { return textIn(entry, key); };
    Answer answer{text(Key::gate), text(Key::answer), text(Key::reason), text(Key::wanted),     text(Key::found),
                  text(Key::file), text(Key::key),    text(Key::rule),   text(Key::entitlement)};
    if (const auto number = entry.find(Key::exclusion)) answer.exclusion = number->unsignedInteger().value_or(0);
    if (const auto holders = entry.find(Key::holders)) {
        holders->forEachElement([&](mox::View holder) {
            const auto pid = holder.find(Key::pid);
            const auto seconds = holder.find(Key::seconds);
            answer.holders.push_back(
                {pid ? pid->signedInteger().value_or(0) : 0, seconds ? seconds->unsignedInteger().value_or(0) : 0});
        });
    }
    if (const auto other = entry.find(Key::other)) {
        answer.other = textIn(*other, Key::uuid);
        answer.otherVersion = textIn(*other, Key::version);
    }
    return answer;
}

void addTexts(std::vector<std::string>& texts, const value::Value& pattern) {
    if (const std::string* text = pattern.string()) texts.push_back(text->starts_with('=') ? text->substr(1) : *text);
    if (const value::Array* list = pattern.array()) {
        for (const value::Value& element : *list) addTexts(texts, element);
    }
}

// The keys by which the plug-ins of the forms can be asked for.
std::set<std::string> keysIn(const mox::Object& everything) {
    std::set<std::string> keys{kIdentifierRule, "KXExtensionContainingApp", "KXUserElection", "halvern.uuid"};
    const auto matches = everything.view().find(VTKey::matches);
    const auto forms = matches ? matches->message() : std::nullopt;
    const auto add = [&](std::optional<mox::View> dictionary) {
        if (!dictionary || !dictionary->isDictionary()) return;
        dictionary->forEachEntry([&](std::string_view key, mox::View) { keys.emplace(key); });
    };
    if (!forms) return keys;
    forms->forEachElement([&](mox::View form) {
        add(form.find(VTFormKey::bundleInfo));
        const auto own = form.find(VTFormKey::info);
        if (own && own->isDictionary()) add(own->find(VTInfoKey::attributes));
    });
    return keys;
}

}  // namespace

bool Answer::isRefusal() const {
    return answer == VTAnswer::refused || answer == VTAnswer::wouldRefuse;
}

std::optional<std::vector<Explanation>> in(const mox::Object& reply) {
    namespace Key = VTExplanationKey;
    const auto found = reply.view().find(VTKey::explanations);
    const auto list = found ? found->message() : std::nullopt;
    if (!list) return {};
    std::vector<Explanation> all;
    list->forEachElement([&](mox::View one) {
        const auto text = [&](const char* key) { return textIn(one, key); };
        Explanation explanation{text(Key::identifier),
                                text(Key::uuid),
                                text(Key::path),
                                text(Key::version),
                                text(Key::point),
                                text(Key::verdict),
                                text(Key::gate),
                                {},
                                one};
        if (const auto gates = one.find(Key::gates)) {
            gates->forEachElement([&](mox::View entry) { explanation.answers.push_back(answerFrom(entry)); });
        }
        all.push_back(std::move(explanation));
    });
    return all;
}

std::string remedyFor(const Answer& answer) {
    if (answer.gate == "location") return "put the bundle into an application's PlugIns, or on the system volume";
    if (answer.gate == "dedication")
        return "only hosts of its own application get it; its author may take the key away";
    if (answer.gate == "holds") return "whoever holds it ends its hold, or `vtctl unhold TOKEN` does";
    if (answer.gate == "rules" && answer.rule == "KXUserElection") return "`vtctl enable`, `disable` or `default` it";
    if (answer.gate == "rules") return "ask for what it has, or its author changes the key";
    if (answer.gate == "exclusions") {
        const std::string number = answer.exclusion > 0 ? std::to_string(answer.exclusion) : "N";
        return "`vtctl include " + number + "` takes the exclusion away";
    }
    if (answer.gate == "host authorization") {
        if (answer.file.ends_with("restrictions.plist")) return "the owner of the device changes the restriction";
        return answer.rule.empty() && answer.key != answer.entitlement
                   ? "the host's author adds the entitlement, or the plug-in's takes the demand away"
                   : "the host's author changes its entitlement";
    }
    if (answer.gate == "duplicates")
        return "`vtctl match --flags 5` shows every copy; remove the other, or raise the version";
    if (answer.gate == VTGate::bundle) return "`vtctl verify` on its path says all that is wrong";
    if (answer.gate == VTGate::installation) return "it comes when its installer is done";
    if (answer.gate == "effort") return "ask with fewer rules, or its author shortens its lists";
    return {};
}

std::string countsOf(const std::vector<Explanation>& explanations) {
    std::map<std::string, std::size_t> counts;
    for (const Explanation& one : explanations) {
        if (!one.isOffered()) ++counts[one.gate];
    }
    std::vector<std::pair<std::size_t, std::string>> ordered;
    for (const auto& [gate, count] : counts) ordered.emplace_back(count, gate);
    std::stable_sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    std::string words;
    for (const auto& [count, gate] : ordered) {
        words += (words.empty() ? "" : ", ") + std::to_string(count) + " by " + terminal::shown(gate);
    }
    return words;
}

std::vector<std::string> misspellings(const value::Dictionary& rules, const mox::Object& everything) {
    std::set<std::string> identifiers, points;
    for (const Explanation& one : in(everything).value_or(std::vector<Explanation>{})) {
        identifiers.insert(one.identifier);
        if (!one.point.empty()) points.insert(one.point);
    }
    const std::set<std::string> keys = keysIn(everything);
    std::vector<std::string> lines;
    const auto suggest = [&](const char* what, const std::string& name, const std::set<std::string>& names) {
        if (names.count(name) > 0) return;
        const auto meant = nearest::to(name, names);
        lines.push_back(std::string{"no plug-in has the "} + what + " \"" + name + '"' +
                        (meant ? "; did you mean " + *meant + "?" : ""));
    };
    for (const auto& rule : rules) {
        if (rule.key.starts_with(kEntitlementRule)) continue;
        const bool isIdentifier = rule.key == kIdentifierRule, isPoint = rule.key == VTInfoKey::pointName;
        if (!isIdentifier && !isPoint) {
            if (rule.value != value::Value{false}) suggest("key", rule.key, keys);
            continue;
        }
        std::vector<std::string> texts;
        addTexts(texts, rule.value);
        for (const std::string& text : texts) {
            const bool isName = !text.empty() && std::string_view{"<>?"}.find(text.front()) == std::string_view::npos;
            if (isName) suggest(isPoint ? "extension point" : "identifier", text, isPoint ? points : identifiers);
        }
    }
    return lines;
}

}  // namespace explanations
