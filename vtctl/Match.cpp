#include "vtctl/Match.h"

#include <algorithm>
#include <array>
#include <iostream>

#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/plist/Plist.h"
#include "vtctl/Connection.h"
#include "vtctl/Json.h"

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

// "true" and "false" stand for the booleans; the texts are written "=true" and "=false".
value::Value patternOf(const std::string& text) {
    if (text == "true") return true;
    if (text == "false") return false;
    return text;
}

// The rules file first; a KEY on the command line replaces the file's, and given again it adds another acceptable
// pattern.
value::Result<value::Dictionary> rulesOf(const MatchOptions& options) {
    value::Dictionary rules;
    if (!options.rulesFile.empty()) {
        auto read = readRules(options.rulesFile);
        if (!read) return read.error();
        rules = *std::move(read);
    }
    value::Dictionary::Builder given;
    for (const std::string& text : options.patterns) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0) {
            return usage("\"" + text + "\" is no KEY=PATTERN; for example KXExtensionPointName=halvern.share-service");
        }
        const std::string key = text.substr(0, equals);
        const value::Value pattern = patternOf(text.substr(equals + 1));
        const value::Value* before = given.find(key);
        if (before == nullptr) {
            given.set(key, pattern);
        } else {
            value::Array::Storage all;
            if (const value::Array* several = before->array()) {
                all.assign(several->begin(), several->end());
            } else {
                all.push_back(*before);
            }
            all.push_back(pattern);
            given.set(key, value::Array{std::move(all)});
        }
    }
    const value::Dictionary fromCommandLine = std::move(given).build();
    for (const value::Dictionary::Entry& entry : fromCommandLine) rules = rules.changing(entry.key, entry.value);
    return rules;
}

// Texts come from bundles: nothing in them may move the cursor or forge a line.
std::string shown(std::optional<std::string_view> text) {
    std::string result;
    for (const char c : text.value_or("-")) {
        const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
        result += control ? '?' : c;
    }
    return result.empty() ? "-" : result;
}

// Characters, as far as one column each: the continuation bytes of UTF-8 take none.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

using Row = std::array<std::string, 5>;

Row rowOf(mox::View form) {
    const auto text = [form](const char* key) -> std::optional<std::string_view> {
        const auto found = form.find(key);
        return found ? found->string() : std::nullopt;
    };
    const auto resident = form.find("systemResident");
    const bool system = resident && resident->boolean().value_or(false);
    std::string place = text("containingPath") ? shown(text("localizedContainingDisplayName")) : "";
    if (place == "-") place = shown(text("containingPath"));
    if (system) place += place.empty() ? "system" : " (system)";
    return {shown(text("identifier")), shown(text("version")), shown(text("localizedDisplayName")),
            place.empty() ? "-" : place, shown(text("uuid"))};
}

void printTable(const std::vector<Row>& rows) {
    const Row titles{"IDENTIFIER", "VERSION", "NAME", "APPLICATION", "UUID"};
    std::array<std::size_t, titles.size()> widths{};
    const auto widen = [&](const Row& row) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    };
    const auto print = [&](const Row& row) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool last = i + 1 == row.size();
            std::cout << row[i] << (last ? "\n" : std::string(widths[i] - width(row[i]) + 2, ' '));
        }
    };
    widen(titles);
    for (const Row& row : rows) widen(row);
    print(titles);
    for (const Row& row : rows) print(row);
}

}  // namespace

ExitStatus runMatch(const MatchOptions& options) {
    const auto rules = rulesOf(options);
    if (!rules) {
        std::cerr << "vtctl: " << rules.error().localizedDescription() << "\n";
        return ExitStatus::usage;
    }
    VTDaemonClient client{options.serviceName};
    mox::Dictionary request = client.request(VTRequest::match);
    request.set(VTKey::rules, *rules);
    request.set(VTKey::flags, options.flags);
    const mox::Object reply = sendAndWait(client, request);
    if (const ExitStatus status = reportErrorIn(client, reply, options.serviceName); status != ExitStatus::success) {
        return status;
    }
    const auto matches = reply.view().find(VTKey::matches);
    const auto forms = matches ? matches->message() : std::nullopt;
    if (!forms) {
        std::cerr << "vtctl: the reply holds no matches\n";
        return ExitStatus::errorReply;
    }
    if (options.asJson) {
        std::cout << json::fromView(*forms).dump(2, ' ', false, json::Json::error_handler_t::replace) << "\n";
        return ExitStatus::success;
    }
    std::vector<Row> rows;
    forms->forEachElement([&](mox::View form) { rows.push_back(rowOf(form)); });
    if (rows.empty()) {
        std::cerr << "no plug-in matches\n";
    } else {
        printTable(rows);
    }
    return ExitStatus::success;
}
