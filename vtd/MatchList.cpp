#include "vtd/MatchList.h"

#include <algorithm>
#include <string>
#include <utility>

#include "Velto/VTProtocol.h"
#include "Velto/VTVersionComparison.h"
#include "platform/effort/Effort.h"
#include "platform/logging/Invariant.h"

namespace {

// Between copies of one version. Only the candidate's place counts: a copy in the list gains nothing by its own.
bool winsTie(const VTForm& candidate, const VTForm& listed) {
    if (candidate.systemResident() && !listed.systemResident()) return true;
    return candidate.lastModified() > listed.lastModified();
}

constexpr std::uint64_t kUnitsAName = 8;  // to look one up: it lies in memory that nothing else has touched lately

}  // namespace

MatchList::Admission MatchList::judge(const VTForm& candidate) const {
    const bool everyVersion = (flags_ & VTDiscoverEveryVersion) != 0;
    if (everyVersion && (flags_ & VTDiscoverEveryCopy) != 0) return {};
    const auto copies = copies_.find(candidate.identifier());
    if (copies == copies_.end()) return {};
    for (Position at = copies->second.first; at != kNone; at = nextCopy_[at]) {
        if (removed_[at]) continue;
        const VTForm& listed = forms_[at];
        if (!effort::take(1 + effort::ofCharacters(std::min(candidate.version().size(), listed.version().size()))))
            return {false};
        const std::weak_ordering order = compareVersionString(candidate.version(), listed.version());
        if (everyVersion && order != std::weak_ordering::equivalent) continue;
        const bool wins =
            order == std::weak_ordering::equivalent ? winsTie(candidate, listed) : order == std::weak_ordering::greater;
        return {wins, at};
    }
    return {};
}

const VTForm* MatchList::standingFor(const VTForm& appended) const {
    const auto copies = copies_.find(appended.identifier());
    const VTForm* instead = nullptr;
    for (Position at = copies != copies_.end() ? copies->second.first : kNone; at != kNone; at = nextCopy_[at]) {
        const VTForm& listed = forms_[at];
        if (removed_[at]) continue;
        if (listed.uuid() == appended.uuid()) return &listed;
        const bool isRival =
            (flags_ & VTDiscoverEveryVersion) == 0 || compareVersionString(appended.version(), listed.version()) == 0;
        if (isRival) instead = &listed;
    }
    return instead;
}

void MatchList::remove(Position position) {
    INVARIANT(!removed_[position]);
    INVARIANT(encodedBytes_ >= forms_[position].encodedSizeHint());
    removed_[position] = true;
    encodedBytes_ -= forms_[position].encodedSizeHint();
    anyRemoved_ = true;
}

std::uint64_t MatchList::priceOf(const std::optional<value::Value>& replacePlugIn) {
    const value::Array* const list = replacePlugIn ? replacePlugIn->array() : nullptr;
    return list != nullptr ? list->size() * kUnitsAName : 0;
}

void MatchList::append(VTForm form, const Admission& admission, std::optional<value::Value> replacePlugIn) {
    if (admission.other != kNone) {
        remove(admission.other);
        // There was no other copy to look at: the next one need not walk past all that have been removed.
        if ((flags_ & VTDiscoverEveryVersion) == 0) copies_.erase(copies_.find(form.identifier()));
    }
    const Position position = forms_.size();
    INVARIANT(removed_.size() == position && nextCopy_.size() == position);
    encodedBytes_ += form.encodedSizeHint();
    forms_.push_back(std::move(form));
    removed_.push_back(false);
    nextCopy_.push_back(kNone);

    const auto [copies, isFirst] = copies_.try_emplace(forms_.back().identifier(), Copies{position, position});
    if (!isFirst) {
        nextCopy_[copies->second.last] = position;
        copies->second.last = position;
    }

    if (replacePlugIn) claims_.push_back({position, *std::move(replacePlugIn)});
}

void MatchList::link() {
    if (claims_.empty()) return;
    for (const Claim& claim : claims_) {
        const auto grant = [&](const value::Value& name) {
            const std::string* const replaced = name.string();
            const auto copies = replaced != nullptr ? copies_.find(*replaced) : copies_.end();
            if (copies != copies_.end()) copies->second.overrider = claim.by;
        };
        grant(claim.names);
        if (const value::Array* list = claim.names.array()) std::for_each(list->begin(), list->end(), grant);
    }
    for (Position at = 0; at < forms_.size(); ++at) {
        if (removed_[at]) continue;
        const Position by = copies_.find(forms_[at].identifier())->second.overrider;
        if (by == kNone) continue;
        VTForm& overrider = forms_[by];
        forms_[at].set(VTFormKey::overrider, overrider.uuid());
        overrider.set(VTFormKey::overriding, forms_[at].identifier());
    }
}

std::vector<VTForm> MatchList::finish() && {
    link();
    if (!anyRemoved_) return std::move(forms_);
    std::vector<VTForm> kept;
    kept.reserve(forms_.size());
    for (Position at = 0; at < forms_.size(); ++at) {
        if (!removed_[at]) kept.push_back(std::move(forms_[at]));
    }
    return kept;
}
