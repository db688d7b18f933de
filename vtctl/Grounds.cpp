#include "vtctl/Grounds.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <string>

#include "Velto/VTExplanation.h"
#include "Velto/VTProtocol.h"
#include "vtctl/Connection.h"
#include "vtctl/Terminal.h"
#include "vtctl/verify/Installed.h"
#include "vtctl/verify/Report.h"
#include "vtctl/verify/Verify.h"

namespace grounds {

namespace {

using explanations::Answer;
using explanations::Explanation;

constexpr std::size_t kMostSuspects = 20;  // problems that are told of bundles nobody named

std::string sentenceOn(const Explanation& one) {
    std::string words = one.identifier.empty() ? one.path : one.identifier + " at " + one.path;
    words += " is " + one.verdict + " by \"" + one.gate + '"';
    const auto decided = std::find_if(one.answers.begin(), one.answers.end(),
                                      [&](const Answer& answer) { return answer.gate == one.gate; });
    if (decided == one.answers.end()) return words;
    const auto add = [&words](const char* before, const std::string& text) {
        if (!text.empty()) words += before + text;
    };
    add(": it ", decided->reason);
    add("; wanted: ", decided->wanted);
    add("; found: ", decided->found);
    add("; in ", decided->file);
    if (!decided->file.empty()) add(": ", decided->key);
    for (const Answer::Holder& holder : decided->holders) {
        words += "; held by process " + std::to_string(holder.pid) + " for " + std::to_string(holder.seconds) + " s";
    }
    const std::string remedy = explanations::remedyFor(*decided);
    if (!remedy.empty()) words += " (" + remedy + ")";
    return words;
}

}  // namespace

mox::Object ask(VTDaemonClient& client, const value::Dictionary& rules, std::uint64_t flags) {
    mox::Dictionary request = client.request(VTRequest::match);
    request.set(VTKey::rules, rules);
    request.set(VTKey::flags, flags);
    request.set(VTKey::explain, true);
    return sendAndWait(client, request);
}

bool tell(const std::vector<Explanation>& all, const Test& test, std::size_t most) {
    std::size_t told = 0;
    std::set<std::string> verified;
    for (const Explanation& one : all) {
        if (one.isOffered() || !test(one)) continue;
        if (++told > most) continue;
        const bool isRefused = one.gate == VTGate::bundle;
        const auto problems =
            isRefused && verified.insert(one.path).second ? verify::ofPath(one.path) : verify::Problems{};
        if (!isRefused || problems.empty()) terminal::complain(sentenceOn(one));
        verify::print(problems, std::cerr);
    }
    if (told > most)
        terminal::complain("and " + std::to_string(told - most) + " more; `vtctl match --rejected` has all");
    return told > 0;
}

void tellSuspects(const std::vector<Explanation>& all) {
    std::set<std::string> suspects, known;
    for (const Explanation& one : all) {
        known.insert(one.path);
        if (one.gate == VTGate::bundle || one.point.empty()) suspects.insert(one.path);
    }
    for (const std::string& path : verify::installedPlugIns()) {
        if (known.count(path) == 0) suspects.insert(path);
    }
    verify::Problems problems;
    for (const std::string& path : suspects) {
        for (auto& problem : verify::ofPath(path)) problems.push_back(std::move(problem));
    }
    const std::size_t count = problems.size();
    if (count > kMostSuspects) problems.resize(kMostSuspects);
    verify::print(problems, std::cerr);
    if (count > kMostSuspects) {
        terminal::complain(std::to_string(count - kMostSuspects) +
                           " more problems; `vtctl verify` tells those of a path");
    }
}

}  // namespace grounds
