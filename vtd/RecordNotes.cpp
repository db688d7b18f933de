#include "vtd/RecordNotes.h"

#include <utility>

const logging::Transcript::Lines* RecordNotes::refusal(const Record& record) const {
    const auto found = notes_.find(record.get());
    // Another record may have come to lie where one has gone.
    const bool isOfThis = found != notes_.end() && found->second.record.lock() == record;
    return isOfThis && found->second.isRefused ? &found->second.why : nullptr;
}

void RecordNotes::noteRefusal(const Record& record, logging::Transcript::Lines why) {
    Note& note = noteOf(record);
    note.isRefused = true;
    note.why = std::move(why);
}

bool RecordNotes::noteCosts(const Record& record) {
    return !std::exchange(noteOf(record).isCostly, true);
}

RecordNotes::Note& RecordNotes::noteOf(const Record& record) {
    if (notes_.size() > 2 * swept_ + 16) {
        std::erase_if(notes_, [](const auto& entry) { return entry.second.record.expired(); });
        swept_ = notes_.size();
    }
    Note& note = notes_[record.get()];
    if (note.record.lock() != record) note = Note{record};
    return note;
}
