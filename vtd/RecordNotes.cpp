#include "vtd/RecordNotes.h"

#include <utility>

const RecordNotes::Note* RecordNotes::find(const Record& record) const {
    const auto found = notes_.find(record.get());
    // Another record may have come to lie where one has gone.
    return found != notes_.end() && found->second.record.lock() == record ? &found->second : nullptr;
}

const logging::Transcript::Lines* RecordNotes::refusal(const Record& record) const {
    const Note* const note = find(record);
    return note != nullptr && note->isRefused ? &note->why : nullptr;
}

void RecordNotes::noteRefusal(const Record& record, logging::Transcript::Lines why, Said said) {
    Note& note = noteOf(record);
    note.isRefused = true;
    note.isSaid = said == Said::yes;
    note.why = std::move(why);
}

bool RecordNotes::sayRefusal(const Record& record) {
    if (refusal(record) == nullptr) return false;
    Note& note = noteOf(record);
    if (!std::exchange(note.isSaid, true)) logging::repeat(note.why);
    return true;
}

void RecordNotes::noteLines(const Record& record, logging::Transcript::Lines lines) {
    Note& note = noteOf(record);
    note.isSaid = false;
    note.why = std::move(lines);
}

void RecordNotes::sayLines(const Record& record) {
    const Note* const known = find(record);
    if (known == nullptr || known->isSaid) return;
    Note& note = noteOf(record);
    note.isSaid = true;
    logging::repeat(std::exchange(note.why, {}));
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
