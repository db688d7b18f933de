#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/mox/Encoder.h"
#include "vtd/Discovery.h"
#include "vtd/VTDatabase.h"
#include "vtd/explain/Evidence.h"

namespace explain {

// What a discovery tells of every plug-in that it has looked at, once it has looked at all: whether it is offered, else
// which gate decided and on what grounds, and what the gates behind that one would have said. The verdicts are the
// discovery's own; only gates that it has not asked are asked here, the same ones, and change nothing.
//
// Each plug-in pays for itself, as in the discovery. What is told of one is bounded, whatever its bundle or the request
// holds: a few KiB.
//
// Belongs to one request, as the discovery does, and must not outlive it.
class Explanation {
public:
    // Called before the next is written, with the bytes that this may take; where it answers no, nothing more is.
    using Reserve = std::function<bool(std::size_t bytes)>;

    Explanation(Discovery& discovery, Sources sources, Reserve reserve);
    ~Explanation();
    Explanation(const Explanation&) = delete;
    Explanation& operator=(const Explanation&) = delete;

    // The verdict on a candidate, as the discovery's visit() answered it; all have been visited by now.
    void add(const VTDPlugIn& candidate, const std::optional<Discovery::Refusal>& refusal);

    // Of what is no candidate.
    void add(const VTDatabase::LeftOut& leftOut);

    bool isCut() const { return isCut_; }  // there was no room for all

    // The list in message form. The end.
    mox::Encoded finish() &&;

private:
    struct Subject;

    bool mayGoOn();
    void begin(const Subject& subject, std::string_view verdict, std::string_view gate);
    void end();
    mox::Encoder::Container beginGate(std::string_view gate, std::string_view answer);
    void addGate(std::string_view gate, std::string_view answer, std::string_view reason = {});
    void addRefusal(const gates::Gate& gate, std::string_view answer, const gates::Reason& reason,
                    const Evidence& evidence);
    void addEvidence(mox::Encoder::Container& entry, const Evidence& evidence);
    void text(mox::Encoder::Container& entry, std::string_view key, std::string_view text);
    const gates::Gate* decisionOn(gates::Visit& visit, const std::optional<Discovery::Refusal>& refusal,
                                  const VTForm*& instead) const;

    Discovery& discovery_;
    const Sources sources_;
    const Reserve reserve_;
    rules::Complaints complaints_;  // of which the discovery tells
    mox::Encoder encoder_;
    mox::Encoder::Container list_;
    mox::Encoder::Container plugIn_{0};
    mox::Encoder::Container gates_{0};
    bool isCut_ = false;
};

}  // namespace explain
