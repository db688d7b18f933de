#include "vtctl/Match.h"

#include <algorithm>
#include <iostream>

#include "Velto/VTForm.h"
#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/plist/Plist.h"
#include "vtctl/Connection.h"
#include "vtctl/Explanations.h"
#include "vtctl/Grounds.h"
#include "vtctl/Json.h"
#include "vtctl/Rules.h"
#include "vtctl/Terminal.h"

namespace {

constexpr std::size_t kRulesLimit = std::size_t{1} << 20;

value::Error usage(const std::string& what) {
    return {"vtctl", 0, what};
}

value::Result<value::Dictionary> readRules(const std::string& path) {
    const auto contents = file::readRegular(path, kRulesLimit);
    if (!contents) return usage("cannot read the rules: " + contents.error().localizedDescription());
    const std::string& text = contents->bytes;
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    std::optional<value::Value> rules;
    if (start != std::string::npos && text[start] == '{') {
        const auto parsed = json::parse(text);
        if (!parsed) return usage(path + ": " + parsed.error().localizedDescription());
        auto converted = json::toValue(*parsed);
        if (!converted) return usage(path + ": " + converted.error().localizedDescription());
        rules = *std::move(converted);
    } else {
        auto parsed = plist::read(text);
        if (!parsed) return usage(path + ": " + parsed.error().localizedDescription());
        rules = *std::move(parsed);
    }
    if (const value::Dictionary* dictionary = rules->dictionary()) return *dictionary;
    return usage(path + " holds no dictionary of rules");
}

// The rules file first; a KEY on the command line replaces the file's.
value::Result<value::Dictionary> rulesOf(const MatchOptions& options) {
    value::Dictionary rules;
    if (!options.rulesFile.empty()) {
        auto read = readRules(options.rulesFile);
        if (!read) return read.error();
        rules = *std::move(read);
    }
    const auto given = rules::fromWords(options.patterns);
    if (!given) return given.error();
    for (const value::Dictionary::Entry& entry : *given) rules = rules.changing(entry.key, entry.value);
    return rules;
}

std::vector<std::string> rowOf(mox::View form) {
    const auto text = [form](const char* key) -> std::optional<std::string_view> {
        const auto found = form.find(key);
        return found ? found->string() : std::nullopt;
    };
    const auto cell = [&text](const char* key) { return terminal::shownOrDash(text(key)); };
    const auto resident = form.find(VTFormKey::systemResident);
    const bool system = resident && resident->boolean().value_or(false);
    std::string place;
    if (text(VTFormKey::containingPath)) {
        const bool named = !text(VTFormKey::localizedContainingName).value_or("").empty();
        place = cell(named ? VTFormKey::localizedContainingName : VTFormKey::containingPath);
    }
    if (system) place += place.empty() ? "system" : " (system)";
    return {cell(VTFormKey::identifier), cell(VTFormKey::version), cell(VTFormKey::localizedName),
            place.empty() ? "-" : place, cell(VTFormKey::uuid)};
}

// Why nothing was found, as far as that can be told: what held back those that the rules name, and what was probably
// misspelt.
void tellWhatWouldMatch(VTDaemonClient& client, const value::Dictionary& rules, std::uint64_t flags) {
    const mox::Object named = grounds::ask(client, rules, flags), everything = grounds::ask(client, {}, flags);
    if (named.isError() || everything.isError()) return;
    for (const std::string& line : explanations::misspellings(rules, everything)) terminal::complain(line);
    const auto looked = explanations::in(named), all = explanations::in(everything);
    if (!looked || !all) return;
    const std::string counts = explanations::countsOf(*looked);
    terminal::complain("of " + std::to_string(all->size()) + " plug-ins there are the rules name " +
                       std::to_string(looked->size()) + (counts.empty() ? "" : ", held back: " + counts) +
                       "; `vtctl explain PLUGIN RULE...` says more of one");
    constexpr std::size_t kMostTold = 5;
    const auto isNearly = [](const auto& one) { return one.gate != "rules"; };  // all that the rules ask for it has
    if (!grounds::tell(*looked, isNearly, kMostTold) && looked->size() <= kMostTold) {
        grounds::tell(*looked, [](const auto&) { return true; });
    }
    grounds::tellSuspects(*all);
}

void tellRejected(const mox::Object& reply) {
    const auto all = explanations::in(reply).value_or(std::vector<explanations::Explanation>{});
    std::vector<std::vector<std::string>> rows{{"IDENTIFIER", "VERSION", "HELD BACK BY", "WHY"}};
    for (const auto& one : all) {
        if (one.isOffered()) continue;
        const auto decided = std::find_if(one.answers.begin(), one.answers.end(),
                                          [&](const auto& answer) { return answer.gate == one.gate; });
        std::string why = decided != one.answers.end() ? decided->reason : "";
        if (const auto line = why.rfind('\n'); line != std::string::npos) why.erase(0, line + 1);
        rows.push_back({terminal::shownOrDash(one.identifier), terminal::shownOrDash(one.version),
                        terminal::shownOrDash(one.gate), terminal::shownOrDash(why)});
    }
    const std::string counts = explanations::countsOf(all);
    std::cout << "\nheld back: " << (counts.empty() ? "nothing" : counts) << "\n";
    if (rows.size() > 1) terminal::printTable(rows, std::cout);
}

void printAll(mox::View forms, const mox::Object& reply, const MatchOptions& options) {
    if (!options.tellsRejected) return json::printIndented(forms, std::cout);
    std::cout << "{\"matches\": ";
    json::printIndented(forms, std::cout);
    std::cout << ",\n\"explanations\": ";
    const auto found = reply.view().find(VTKey::explanations);
    if (const auto list = found ? found->message() : std::nullopt) {
        json::printIndented(*list, std::cout);
    } else {
        std::cout << "[]";
    }
    std::cout << "}";
}

}  // namespace

ExitStatus runMatch(const MatchOptions& options) {
    const auto rules = rulesOf(options);
    if (!rules) {
        terminal::complain(rules.error().localizedDescription());
        return ExitStatus::usage;
    }
    VTDaemonClient client{options.serviceName};
    mox::Dictionary request = client.request(VTRequest::match);
    request.set(VTKey::rules, *rules);
    request.set(VTKey::flags, options.flags);
    if (options.tellsRejected) request.set(VTKey::explain, true);
    const mox::Object reply = sendAndWait(client, request);
    if (const ExitStatus status = reportErrorIn(client, reply, options.serviceName); status != ExitStatus::success) {
        return status;
    }
    const auto matches = reply.view().find(VTKey::matches);
    const auto forms = matches ? matches->message() : std::nullopt;
    if (!forms) {
        terminal::complain("the reply holds no matches");
        return ExitStatus::errorReply;
    }
    if (options.asJson) {
        printAll(*forms, reply, options);
        std::cout << "\n";
        return ExitStatus::success;
    }
    std::vector<std::vector<std::string>> rows{{"IDENTIFIER", "VERSION", "NAME", "APPLICATION", "UUID"}};
    forms->forEachElement([&](mox::View form) { rows.push_back(rowOf(form)); });
    if (rows.size() == 1) {
        std::cerr << "no plug-in matches\n";
        tellWhatWouldMatch(client, *rules, options.flags);
    } else {
        terminal::printTable(rows, std::cout);
    }
    if (options.tellsRejected) tellRejected(reply);
    return ExitStatus::success;
}
