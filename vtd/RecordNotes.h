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

    // What the log is to say of the record's refusal; null when it was not refused.
    const logging::Transcript::Lines* refusal(const Record& record) const;

    enum class Said : bool { no, yes };
    void noteRefusal(const Record& record, logging::Transcript::Lines why, Said said);

    // Says why the record was refused, unless that was said before. Whether it was refused.
    bool sayRefusal(const Record& record);

    // What the log is to say of a record that can be used, when somebody first asks for it.
    void noteLines(const Record& record, logging::Transcript::Lines lines);
    void sayLines(const Record& record);

    // Whether that a discovery left the plug-in out for its costs is said the first time.
    bool noteCosts(const Record& record);

private:
    struct Note {
        std::weak_ptr<const dravo::DVVeltoProxy> record;
        bool isRefused = false;
        bool isSaid = false;
        logging::Transcript::Lines why = {};  // it was refused, or what else is to be said
        bool isCostly = false;
    };

    const Note* find(const Record& record) const;
    Note& noteOf(const Record& record);

    std::unordered_map<const dravo::DVVeltoProxy*, Note> notes_;
    std::size_t swept_ = 0;  // how many there were after the last look for those whose record has gone
};
