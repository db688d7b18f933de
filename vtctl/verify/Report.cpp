#include "vtctl/verify/Report.h"

#include <algorithm>
#include <iostream>
#include <string_view>

#include "vtctl/Json.h"
#include "vtctl/Paths.h"
#include "vtctl/Terminal.h"
#include "vtctl/verify/Verify.h"

namespace verify {

namespace {

constexpr char kManual[] = "vtd-bundle(5), RULES";

const char* nameOf(Severity severity) {
    return severity == Severity::fault ? "error" : "warning";
}

std::string uriOf(const std::string& path) {
    constexpr std::string_view kPlain = "/._-~";
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string uri = "file://";
    for (const unsigned char c : path) {
        const bool isPlain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             kPlain.find(static_cast<char>(c)) != std::string_view::npos;
        if (isPlain) {
            uri += static_cast<char>(c);
        } else {
            uri += {'%', kDigits[c >> 4U], kDigits[c & 15U]};
        }
    }
    return uri;
}

json::Json asJson(const Problem& problem) {
    json::Json one{{"kind", nameOf(problem.severity)},
                   {"rule", textOf(problem.rule).name},
                   {"manual", kManual},
                   {"file", problem.file}};
    if (problem.place.line > 0) {
        one["line"] = problem.place.line;
        one["column"] = problem.place.column;
    }
    if (!problem.key.empty()) one["key"] = problem.key;
    one["what"] = problem.what;
    if (!problem.expected.empty()) one["expected"] = problem.expected;
    one["remedy"] = problem.remedy;
    return one;
}

// The rules go along, so that an editor has their texts without the manual.
json::Json asSarif(const Problems& problems) {
    json::Json rules = json::Json::array(), results = json::Json::array();
    for (const RuleText& rule : kRuleTexts) {
        rules.push_back({{"id", rule.name},
                         {"shortDescription", {{"text", rule.meaning}}},
                         {"help", {{"text", std::string{rule.remedy} + " (" + kManual + ")"}}},
                         {"defaultConfiguration", {{"level", nameOf(rule.severity)}}}});
    }
    for (const Problem& problem : problems) {
        json::Json place{{"artifactLocation", {{"uri", uriOf(problem.file)}}}};
        if (problem.place.line > 0) {
            place["region"] = {{"startLine", problem.place.line}, {"startColumn", problem.place.column}};
        }
        const std::string key = problem.key.empty() ? "" : problem.key + ": ";
        json::Json result{{"ruleId", textOf(problem.rule).name},
                          {"level", nameOf(problem.severity)},
                          {"message", {{"text", key + problem.what + " (" + problem.remedy + ")"}}}};
        result["locations"] = json::Json::array({json::Json{{"physicalLocation", std::move(place)}}});
        results.push_back(std::move(result));
    }
    json::Json run{{"tool", {{"driver", {{"name", "vtctl verify"}, {"rules", std::move(rules)}}}}},
                   {"columnKind", "unicodeCodePoints"},
                   {"results", std::move(results)}};
    return {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
            {"version", "2.1.0"},
            {"runs", json::Json::array({std::move(run)})}};
}

}  // namespace

void print(const Problems& problems, std::ostream& stream) {
    for (const Problem& problem : problems) {
        stream << terminal::shown(problem.file);
        if (problem.place.line > 0) stream << ":" << problem.place.line << ":" << problem.place.column;
        stream << ": " << nameOf(problem.severity) << ": ";
        if (!problem.key.empty()) stream << terminal::shown(problem.key) << ": ";
        stream << terminal::shown(problem.what) << " (" << terminal::shown(problem.remedy) << ") ["
               << textOf(problem.rule).name << "]\n";
    }
}

}  // namespace verify

ExitStatus runVerify(const std::vector<std::string>& paths, verify::Form form) {
    const auto absolute = absolutePaths(paths);
    if (!absolute) return ExitStatus::usage;
    verify::Problems problems;
    for (const std::string& path : *absolute) {
        for (auto& problem : verify::ofPath(path)) problems.push_back(std::move(problem));
    }
    if (form == verify::Form::lines) {
        verify::print(problems, std::cout);
    } else if (form == verify::Form::sarif) {
        std::cout << json::indentedText(verify::asSarif(problems)) << "\n";
    } else {
        json::Json all = json::Json::array();
        for (const auto& problem : problems) all.push_back(verify::asJson(problem));
        std::cout << json::indentedText(all) << "\n";
    }
    const bool isSound = std::none_of(problems.begin(), problems.end(),
                                      [](const auto& problem) { return problem.severity == verify::Severity::fault; });
    return isSound ? ExitStatus::success : ExitStatus::usage;
}

ExitStatus runListKeys() {
    std::vector<std::vector<std::string>> rows{{"IN", "KEY", "KIND"}};
    for (const verify::Key& key : verify::keys()) {
        rows.push_back({verify::nameOf(key.level), key.name, verify::kindsOf(key)});
    }
    terminal::printTable(rows, std::cout);
    return ExitStatus::success;
}

ExitStatus runListRules() {
    std::vector<std::vector<std::string>> rows{{"RULE", "KIND", "MEANING"}};
    for (const verify::RuleText& rule : verify::kRuleTexts) {
        rows.push_back({rule.name, rule.severity == verify::Severity::fault ? "error" : "warning", rule.meaning});
    }
    terminal::printTable(rows, std::cout);
    return ExitStatus::success;
}
