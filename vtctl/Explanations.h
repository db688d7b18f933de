#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/mox/Object.h"
#include "platform/mox/View.h"
#include "platform/value/Value.h"

// What the daemon tells of plug-ins that a discovery looked at, and what people can do about it.
namespace explanations {

// What one gate said. Texts are as they came: terminal::shown() is for printing them.
struct Answer {
    std::string gate, answer, reason, wanted, found, file, key, rule, entitlement;
    std::uint64_t exclusion = 0;  // from 1; 0: none
    struct Holder {
        std::int64_t pid;
        std::uint64_t seconds;
    };
    std::vector<Holder> holders = {};
    std::string other = {}, otherVersion = {};  // of the copy that stands instead: its UUID

    bool isRefusal() const;  // it refuses, or would
};

struct Explanation {
    std::string identifier, uuid, path, version, point, verdict, gate;
    std::vector<Answer> answers;
    mox::View view;  // of it as it came, as long as the reply lives

    bool isOffered() const { return gate.empty(); }
};

// Those of a reply; nothing where it has none, as that of an older daemon.
std::optional<std::vector<Explanation>> in(const mox::Object& reply);

// Who can change the answer, and how.
std::string remedyFor(const Answer& answer);

// "2 by rules, 1 by holds": what each gate held back, the one that held back most first. Empty: nothing.
std::string countsOf(const std::vector<Explanation>& explanations);

// What the rules probably meant where nothing is called as they say: of keys, extension points and identifiers, a line
// each. The reply is that to an explained discovery of everything.
std::vector<std::string> misspellings(const value::Dictionary& rules, const mox::Object& everything);

}  // namespace explanations
