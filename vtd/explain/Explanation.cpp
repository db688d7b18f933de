#include "vtd/explain/Explanation.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "Velto/VTExplanation.h"
#include "Velto/VTProtocol.h"
#include "platform/effort/Effort.h"
#include "platform/text/Format.h"
#include "platform/text/Utf8.h"

namespace explain {

namespace {

// A gate that refuses is asked again for its grounds, and so is a part of it.
constexpr std::uint64_t kRounds = static_cast<std::uint64_t>(Discovery::Rounds::explained) - 1;

// Of one plug-in as it is written, twice: the buffer doubles as it grows.
constexpr std::size_t kMostOfOne = std::size_t{32} << 10;

constexpr std::size_t kMostWords = std::size_t{4} << 10;  // of what the log said

std::string reasonOf(const gates::Reason& reason) {
    const std::string text{reason.text};
    return reason.detail.empty() ? text : brief(text + ": " + reason.detail);
}

std::optional<std::string> pointOf(const VTDPlugIn& plugIn) {
    const auto point =
        plugIn.valueFor({rules::kPointAttribute, rules::Attribute::other, rules::Demand::truth, false, {}, {}, {}, {}});
    return point && point->string() != nullptr ? std::optional{brief(*point->string())} : std::nullopt;
}

}  // namespace

struct Explanation::Subject {
    std::string identifier, uuid, path, version;
    std::optional<std::string> point = {};
};

Explanation::Explanation(Discovery& discovery, Sources sources, Reserve reserve)
    : discovery_{discovery}, sources_{std::move(sources)}, reserve_{std::move(reserve)}, list_{0} {
    encoder_.beginMessage();
    list_ = encoder_.beginArray();
}

Explanation::~Explanation() {
    complaints_.discard();
}

bool Explanation::mayGoOn() {
    isCut_ = isCut_ || !reserve_(kMostOfOne);
    return !isCut_;
}

// The gate that decided about the candidate: null when it is offered, or held back for what it costs. A match may have
// had to go for one that came after it.
const gates::Gate* Explanation::decisionOn(gates::Visit& visit, const std::optional<Discovery::Refusal>& refusal,
                                           const VTForm*& instead) const {
    if (refusal) return refusal->gate;
    const auto form = visit.candidate.exportForm();
    const VTForm* const standing = form ? discovery_.matches().standingFor(*form) : nullptr;
    if (standing != nullptr && standing->uuid() == form->uuid()) return nullptr;
    instead = standing;
    return &*std::find_if(std::begin(gates::kInOrder), std::end(gates::kInOrder),
                          [](const gates::Gate& gate) { return gate.name == gates::Name::duplicates; });
}

void Explanation::add(const VTDPlugIn& candidate, const std::optional<Discovery::Refusal>& refusal) {
    if (!mayGoOn()) return;
    effort::Account own{discovery_.account(), kRounds * discovery_.priceOfOne()};
    const effort::Charging charging{own};
    const gates::Query& query = discovery_.query();
    gates::Visit visit{candidate, query, discovery_.matches(), complaints_, discovery_.shareForTokens(), false};

    const VTForm* instead = nullptr;
    const gates::Gate* const decided = decisionOn(visit, refusal, instead);
    const bool isCostly = refusal && refusal->gate == nullptr;
    const bool isOffered = decided == nullptr && !isCostly;
    begin(
        {candidate.identifier(), candidate.uuid().string(), candidate.path(), candidate.version(), pointOf(candidate)},
        isOffered ? VTVerdict::offered : VTVerdict::heldBack,
        isOffered            ? ""
        : decided != nullptr ? decided->text
                             : gates::kEffort);
    bool isBehind = false;
    for (const gates::Gate& gate : gates::kInOrder) {
        if (!gate.isAsked(query) || isCostly) {
            addGate(gate.text, VTAnswer::notAsked);
        } else if (&gate == decided) {
            isBehind = true;
            Evidence evidence = evidenceOf(gate, visit, sources_);
            if (instead != nullptr) evidence.other = instead;
            // As it would have been answered once all had come; its own place in the list is known only to visit().
            if (gate.name == gates::Name::duplicates && evidence.other == nullptr) {
                const auto form = candidate.exportForm();
                evidence.other = form ? discovery_.matches().standingFor(*form) : nullptr;
            }
            addRefusal(gate, VTAnswer::refused,
                       refusal ? refusal->reason : gates::Reason{"is superseded by another copy"}, evidence);
        } else if (!isBehind) {
            addGate(gate.text, VTAnswer::passed);
        } else {
            const bool canBeAsked = gate.name != gates::Name::duplicates || visit.form;
            const auto reason = canBeAsked ? gate.examine(visit) : std::nullopt;
            // What was decided with nothing left to spend was not decided.
            if (!canBeAsked || own.isSpent()) {
                addGate(gate.text, VTAnswer::notAsked);
            } else if (!reason) {
                addGate(gate.text, VTAnswer::wouldPass);
            } else {
                addRefusal(gate, VTAnswer::wouldRefuse, *reason, evidenceOf(gate, visit, sources_));
            }
        }
    }
    if (isCostly) addGate(gates::kEffort, VTAnswer::refused, refusal->reason.text);
    end();
}

void Explanation::add(const VTDatabase::LeftOut& leftOut) {
    if (!mayGoOn()) return;
    const dravo::DVVeltoProxy& record = *leftOut.record;
    using Why = VTDatabase::LeftOut::Why;
    const bool isRefused = leftOut.why == Why::refused;
    const char* const gate = leftOut.why == Why::installing ? VTGate::installation : VTGate::bundle;
    begin({record.pluginIdentifier(), record.pluginUUID().string(), record.bundlePath().value_or(""), {}},
          isRefused ? VTVerdict::refused : VTVerdict::heldBack, gate);
    std::string words = leftOut.words;
    if (leftOut.why == Why::installing) words = "its application is still being installed";
    if (leftOut.why == Why::changing) words = "it changes faster than it is read";
    if (words.empty()) words = "it cannot be read now; the daemon's log says why";
    if (words.size() > kMostWords) words.resize(kMostWords);
    addGate(gate, VTAnswer::refused, words);
    end();
}

void Explanation::begin(const Subject& subject, std::string_view verdict, std::string_view gate) {
    mox::Encoder::element(list_);
    plugIn_ = encoder_.beginDictionary();
    if (!gate.empty()) text(plugIn_, VTExplanationKey::gate, gate);
    text(plugIn_, VTExplanationKey::identifier, subject.identifier);
    text(plugIn_, VTExplanationKey::path, subject.path);
    if (subject.point) text(plugIn_, VTExplanationKey::point, *subject.point);
    text(plugIn_, VTExplanationKey::uuid, subject.uuid);
    text(plugIn_, VTExplanationKey::verdict, verdict);
    if (!subject.version.empty()) text(plugIn_, VTExplanationKey::version, subject.version);
    encoder_.key(plugIn_, VTExplanationKey::gates);
    gates_ = encoder_.beginArray();
}

void Explanation::end() {
    encoder_.end(gates_);
    encoder_.end(plugIn_);
}

mox::Encoder::Container Explanation::beginGate(std::string_view gate, std::string_view answer) {
    mox::Encoder::element(gates_);
    auto entry = encoder_.beginDictionary();
    text(entry, VTExplanationKey::gate, gate);
    text(entry, VTExplanationKey::answer, answer);
    return entry;
}

void Explanation::addGate(std::string_view gate, std::string_view answer, std::string_view reason) {
    auto entry = beginGate(gate, answer);
    if (!reason.empty()) text(entry, VTExplanationKey::reason, reason);
    encoder_.end(entry);
}

void Explanation::addRefusal(const gates::Gate& gate, std::string_view answer, const gates::Reason& reason,
                             const Evidence& evidence) {
    auto entry = beginGate(gate.text, answer);
    text(entry, VTExplanationKey::reason, reasonOf(reason));
    addEvidence(entry, evidence);
    encoder_.end(entry);
}

void Explanation::addEvidence(mox::Encoder::Container& entry, const Evidence& evidence) {
    const std::pair<const char*, const std::string*> texts[] = {
        {VTExplanationKey::wanted, &evidence.wanted}, {VTExplanationKey::found, &evidence.found},
        {VTExplanationKey::file, &evidence.file},     {VTExplanationKey::key, &evidence.key},
        {VTExplanationKey::rule, &evidence.rule},     {VTExplanationKey::entitlement, &evidence.entitlement},
    };
    for (const auto& [key, words] : texts) {
        if (!words->empty()) text(entry, key, *words);
    }
    if (evidence.exclusion > 0) {
        encoder_.key(entry, VTExplanationKey::exclusion);
        encoder_.value(static_cast<std::uint64_t>(evidence.exclusion));
    }
    if (!evidence.holders.empty()) {
        const auto now = std::chrono::system_clock::now();
        encoder_.key(entry, VTExplanationKey::holders);
        auto holders = encoder_.beginArray();
        for (const VTDHoldTable::Holder& holder : evidence.holders) {
            const auto age = std::chrono::duration_cast<std::chrono::seconds>(now - holder.since).count();
            mox::Encoder::element(holders);
            encoder_.value(value::Dictionary{
                {VTExplanationKey::pid, static_cast<std::int64_t>(holder.pid)},
                {VTExplanationKey::seconds, static_cast<std::uint64_t>(std::max<std::int64_t>(age, 0))}});
        }
        encoder_.end(holders);
    }
    if (evidence.other != nullptr) {
        const VTForm& other = *evidence.other;
        encoder_.key(entry, VTExplanationKey::other);
        auto copy = encoder_.beginDictionary();
        text(copy, VTExplanationKey::uuid, other.uuid());
        text(copy, VTExplanationKey::version, other.version());
        encoder_.end(copy);
    }
}

void Explanation::text(mox::Encoder::Container& entry, std::string_view key, std::string_view text) {
    static_cast<void>(effort::take(1 + effort::ofBytes(text.size())));
    encoder_.key(entry, key);
    encoder_.string(text);
}

mox::Encoded Explanation::finish() && {
    encoder_.end(list_);
    return std::make_shared<const std::vector<std::byte>>(encoder_.take());
}

}  // namespace explain
