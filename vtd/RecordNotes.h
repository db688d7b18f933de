#pragma once

#include <cstddef>
#include <memory>
#include <unordered_map>

#include "platform/dravo/Dravo.h"
#include "platform/logging/Log.h"

// What is remembered of the registry's records: why one makes no record of ours, so that its bundle is not read and
// refused again at every discovery, and what was said of one already. A note goes with the registry's record, and so as
// soon as the bundle, or the SDK that it was merged with, is another.
//
// Belongs to the database, on its queue. Bounded by the registry's records, and for each by what a Transcript keeps.
class RecordNotes {
public:
    using Record = std::shared_ptr<const dravo::DVVeltoProxy>;

    // The lines that were written when the record was refused; null when it was not.
    const logging::Transcript::Lines* refusal(const Record& record) const;
    void noteRefusal(const Record& record, logging::Transcript::Lines why);

    // Whether that a discovery left the plug-in out for its costs is said the first time.
    bool noteCosts(const Record& record);

private:
    struct Note {
        std::weak_ptr<const dravo::DVVeltoProxy> record;
        bool isRefused = false;
        logging::Transcript::Lines why = {};
        bool isCostly = false;
    };

    Note& noteOf(const Record& record);

    std::unordered_map<const dravo::DVVeltoProxy*, Note> notes_;
    std::size_t swept_ = 0;  // how many there were after the last look for those whose record has gone
};
