#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/value/Value.h"

class VTDatabase;
class VTDPlugIn;

// What one request decides about plug-ins, whether its client asked for it or the database elected them meanwhile. It
// holds at once, whoever asks; the end of the round, which comes before the reply, saves all of it together and then
// posts each change: a request that names a thousand plug-ins writes the file once.
//
// Ownership: refers to the database, which must outlive it. A round that was not ended ends with its object.
// Threading: one thread at a time, and not on the database's queue.
class VTDAnnotationRound {
public:
    explicit VTDAnnotationRound(VTDatabase& database) : database_{database} {}
    ~VTDAnnotationRound() { end(); }
    VTDAnnotationRound(const VTDAnnotationRound&) = delete;
    VTDAnnotationRound& operator=(const VTDAnnotationRound&) = delete;

    // Merges the annotation into the plug-in's record, or without one removes it. An error (VTErrorRequest), with the
    // record as it was, when that would grow beyond what is stored.
    [[nodiscard]] std::optional<value::Error> set(const std::optional<value::Dictionary>& annotation,
                                                  const VTDPlugIn& plugIn);

    void withdraw();  // what was set in this round was not decided after all

    // Saves and posts. Failures are logged: the changes hold all the same.
    void end();

private:
    VTDatabase& database_;
    std::map<std::string, std::optional<value::Dictionary>> before_;  // the records that were changed, by key
    std::uint64_t changes_ = 0;                                       // to be posted
};
