#pragma once

#include <cstddef>
#include <cstdint>

// What `vtctl verify` holds bundles, applications and SDK files against. vtd-bundle(5) and doc/plugin.md have the same
// table, by the same names.
namespace verify {

// A fault keeps something from being found, used or started; an oddity is accepted, and probably not what was meant.
enum class Severity : std::uint8_t { fault, oddity };

enum class Rule : std::uint8_t {
    nothingThere,
    noBundle,
    infoMissing,
    infoName,
    unreadable,
    malformed,
    noDictionary,
    wrongKind,
    oddKind,
    misspeltKey,
    misplacedKey,
    tooLong,
    noIdentifier,
    badIdentifier,
    noExtension,
    emptyMultiple,
    noPoint,
    unknownPoint,
    brokenPoint,
    noProtocol,
    principalClass,
    forbiddenKey,
    unheldEntitlement,
    badShared,
    oddVersion,
    noExecutableKey,
    badExecutableName,
    executableMissing,
    notExecutable,
    entitlementsIgnored,
    replacesNothing,
    sameIdentifier,
    noPlugIns,
    wrongFolder,
    pointName,
    wrongPlace,
};

struct RuleText {
    Rule rule;
    const char* name;
    Severity severity;
    const char* meaning;
    const char* remedy;  // where a problem has no better one
};

inline constexpr std::size_t kRules = 36;
extern const RuleText kRuleTexts[kRules];

const RuleText& textOf(Rule rule);

}  // namespace verify
