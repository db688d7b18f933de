#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Velto/VTForm.h"
#include "vtd/VTDHoldTable.h"
#include "vtd/gates/Gates.h"

class Host;

// What a gate that refuses a plug-in wanted, what it found, and where that came from.
namespace explain {

// What the gates themselves do not know.
struct Sources {
    const Host& host;
    std::optional<std::int64_t> maximumRating;
    std::function<std::vector<VTDHoldTable::Holder>(const VTDPlugIn&)> holders;
    // A sandboxed caller is told nothing of what else there is: neither of other processes, nor of the user's choices.
    bool isForAll = false;
};

// Texts that are empty are not known, or not told. Each is bounded, whatever a bundle or a request holds.
struct Evidence {
    std::string wanted, found, file, key, rule, entitlement;
    std::size_t exclusion = 0;  // from 1
    std::vector<VTDHoldTable::Holder> holders;
    const VTForm* other = nullptr;  // which the matches own
};

// Of a gate that refused this visit. What looking costs is charged.
Evidence evidenceOf(const gates::Gate& gate, const gates::Visit& visit, const Sources& sources);

// A text, or its beginning.
std::string brief(std::string text);

}  // namespace explain
