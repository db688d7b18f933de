#include "vtctl/Explain.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iostream>
#include <set>
#include <string_view>
#include <system_error>

#include "Velto/VTExplanation.h"
#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "vtctl/Connection.h"
#include "vtctl/Explanations.h"
#include "vtctl/Json.h"
#include "vtctl/Nearest.h"
#include "vtctl/Paths.h"
#include "vtctl/Rules.h"
#include "vtctl/Terminal.h"
#include "vtctl/verify/Report.h"
#include "vtctl/verify/Verify.h"

namespace {

using explanations::Answer;
using explanations::Explanation;

// The registry is asked by literal rules, and what they do not name is not explained. An element that accepts nothing
// changes no answer, and leaves the rule to be asked of every plug-in.
value::Dictionary withoutLiterals(const value::Dictionary& rules) {
    value::Dictionary::Builder asked;
    for (const auto& rule : rules) {
        value::Array::Storage patterns;
        if (const value::Array* list = rule.value.array()) patterns.assign(list->begin(), list->end());
        if (rule.value.string() != nullptr) patterns.push_back(rule.value);
        if (patterns.empty()) {
            asked.set(rule.key, rule.value);
        } else {
            patterns.emplace_back(0);
            asked.set(rule.key, value::Array{std::move(patterns)});
        }
    }
    return std::move(asked).build();
}

bool isPath(const std::string& subject) {
    return subject.find('/') != std::string::npos || subject == ".";
}

std::vector<const Explanation*> select(const std::vector<Explanation>& all,
                                       const std::function<bool(const Explanation&)>& test) {
    std::vector<const Explanation*> found;
    for (const Explanation& one : all) {
        if (test(one)) found.push_back(&one);
    }
    return found;
}

// The first way of naming that finds anything decides.
std::vector<const Explanation*> named(const std::vector<Explanation>& all, const std::string& subject) {
    if (const auto uuid = value::Uuid::parse(subject)) {
        return select(all, [text = uuid->string()](const Explanation& one) { return one.uuid == text; });
    }
    auto found = select(all, [&](const Explanation& one) { return one.identifier == subject; });
    if (!found.empty() || subject.empty()) return found;
    return select(all, [&](const Explanation& one) { return one.identifier.find(subject) != std::string::npos; });
}

// Those of the bundle at the path, or in the application there.
std::vector<const Explanation*> at(const std::vector<Explanation>& all, const std::string& path) {
    return select(all, [&](const Explanation& one) { return one.path == path || one.path.starts_with(path + '/'); });
}

void printEvidence(const Answer& answer) {
    constexpr char kIndent[] = "                        ";
    const auto line = [&](const char* what, const std::string& text) {
        if (!text.empty()) std::cout << kIndent << what << terminal::shown(text) << "\n";
    };
    line("rule: ", answer.rule);
    line("wanted: ", answer.wanted);
    line("found: ", answer.found);
    line("in: ", answer.key.empty() ? answer.file : answer.file + ": " + answer.key);
    if (answer.entitlement != answer.key) line("entitlement: ", answer.entitlement);
    for (const Answer::Holder& holder : answer.holders) {
        std::cout << kIndent << "held by process " << holder.pid << " for " << holder.seconds << " s\n";
    }
    line("instead: ", answer.other.empty() ? "" : answer.other + ", version " + answer.otherVersion);
    line("remedy: ", explanations::remedyFor(answer));
}

// The daemon's log may have had several lines.
void printReason(std::string_view reason) {
    std::string_view before = ": ";
    while (!reason.empty()) {
        const std::string_view line = reason.substr(0, reason.find('\n'));
        std::cout << before << terminal::shown(line);
        reason.remove_prefix(std::min(line.size() + 1, reason.size()));
        before = "\n                        ";
    }
    std::cout << "\n";
}

void print(const Explanation& one) {
    std::cout << terminal::shown(one.identifier) << (one.version.empty() ? "" : " " + terminal::shown(one.version))
              << " at " << terminal::shown(one.path) << " (" << terminal::shown(one.uuid) << ")\n";
    std::cout << "    " << terminal::shown(one.verdict)
              << (one.isOffered() ? "" : " by \"" + terminal::shown(one.gate) + '"') << "\n";
    for (const Answer& answer : one.answers) {
        const std::string gate = terminal::shown(answer.gate);
        std::cout << "    " << gate << std::string(gate.size() < 20 ? 20 - gate.size() : 1, ' ')
                  << terminal::shown(answer.answer);
        printReason(answer.reason);
        if (answer.isRefusal()) printEvidence(answer);
    }
}

void printJson(const std::vector<const Explanation*>& found) {
    std::cout << "[";
    for (const Explanation* one : found) {
        std::cout << (one == found.front() ? "\n" : ",\n");
        json::printIndented(one->view, std::cout);
    }
    std::cout << "\n]\n";
}

// What the daemon knows nothing of: the disk may tell why.
ExitStatus explainUnknownPath(const std::string& path) {
    terminal::complain("the daemon knows no plug-in at " + path);
    const auto problems = verify::ofPath(path);
    verify::print(problems, std::cerr);
    if (problems.empty()) {
        terminal::complain(
            "nothing is wrong with what lies there: a plug-in is found in an application's PlugIns, or "
            "registered with `vtctl add`");
    }
    return ExitStatus::usage;
}

ExitStatus explainUnknown(const std::string& subject, const std::vector<Explanation>& all) {
    std::set<std::string> identifiers;  // and what people call them: what stands behind the last dot
    for (const Explanation& one : all) {
        identifiers.insert(one.identifier);
        identifiers.insert(one.identifier.substr(one.identifier.rfind('.') + 1));
    }
    const auto meant = nearest::to(subject, identifiers);
    terminal::complain("no plug-in is called \"" + subject + '"' + (meant ? "; did you mean " + *meant + "?" : "") +
                       "\na bundle that the daemon has not taken is explained by its path");
    return ExitStatus::usage;
}

}  // namespace

bool setHost(mox::Dictionary& request, const std::string& host) {
    std::int64_t pid = 0;
    const auto read = std::from_chars(host.data(), host.data() + host.size(), pid);
    if (!host.empty() && read.ec == std::errc{} && read.ptr == host.data() + host.size()) {
        request.set(VTKey::forPid, pid);
        return true;
    }
    const auto paths = absolutePaths({host});
    if (!paths) return false;
    request.set(VTKey::forHost, paths->front());
    return true;
}

ExitStatus runExplain(const ExplainOptions& options) {
    const auto rules = rules::fromWords(options.patterns);
    if (!rules) {
        terminal::complain(rules.error().localizedDescription());
        return ExitStatus::usage;
    }
    std::string path;
    if (isPath(options.subject)) {
        const auto paths = absolutePaths({options.subject});
        if (!paths) return ExitStatus::usage;
        path = file::canonicalPath(paths->front()).value_or(paths->front());
    }
    VTDaemonClient client{options.serviceName};
    mox::Dictionary request = client.request(VTRequest::match);
    request.set(VTKey::rules, withoutLiterals(*rules));
    request.set(VTKey::explain, true);
    if (!options.host.empty() && !setHost(request, options.host)) return ExitStatus::usage;
    const mox::Object reply = sendAndWait(client, request);
    if (const ExitStatus status = reportErrorIn(client, reply, options.serviceName); status != ExitStatus::success) {
        return status;
    }
    const auto all = explanations::in(reply);
    if (!all) {
        terminal::complain("the reply explains nothing: is the daemon older than vtctl?");
        return ExitStatus::errorReply;
    }
    const auto found = path.empty() ? named(*all, options.subject) : at(*all, path);
    if (found.empty()) return path.empty() ? explainUnknown(options.subject, *all) : explainUnknownPath(path);
    if (options.asJson) {
        printJson(found);
        return ExitStatus::success;
    }
    for (const Explanation* one : found) {
        print(*one);
        if (!path.empty() && one->gate == VTGate::bundle) verify::print(verify::ofPath(one->path), std::cout);
    }
    return ExitStatus::success;
}
