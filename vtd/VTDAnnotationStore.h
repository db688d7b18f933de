#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Velto/VTAtomic.h"
#include "platform/file/File.h"
#include "platform/lock/LockFile.h"
#include "platform/value/Value.h"

class VTDPlugIn;

// What the user decided about plug-ins, kept over restarts: a table of annotation records, each a dictionary of
// annotation names to values ("election" is the one in use), under the annotation key of the plug-in, an identifier.
// Loaded from one file at start and written back whole after every change; in between the table is authoritative. What
// changes nothing in the table is not written again, as long as the file is the one that was saved last: a request may
// name one plug-in a thousand times.
//
//     file := XML property list {"version": 16, "data": {annotation key: annotation record}}
//
// Ownership: the database owns the one store. The store holds the lock beside its file ("FILE.lock"), so that no other
// daemon uses that file while it lives.
// Threading: changes come from the database's queue, one at a time. Reads may come from any thread: the table is an
// immutable value that a change replaces.
// Errors: a file that cannot be loaded is logged and the table starts empty; a save that fails is logged, the change
// stands in memory, and the next save that works writes all of it. A file that holds anything this store would not
// write back is kept beside the new one, under a name that is logged, by the first save. An annotation that no property
// list can hold stays in memory only, and keeps no other from being saved.
class VTDAnnotationStore {
public:
    static constexpr std::int64_t kVersion = 16;

    // The store of the file at the path, or without one of the default file. An error, before anything is loaded, only
    // when another process uses the file; it says which.
    static value::Result<std::shared_ptr<VTDAnnotationStore>> initWithDatabase(const std::optional<std::string>& path);

    // "Annotations" in "halvern.velto/" of the per-user directory, which is made when missing (0700). A directory that
    // is not to be had ends the daemon.
    static std::string defaultDatabaseURL();

    // The table becomes the file's. On failure the table stays as it is.
    [[nodiscard]] std::optional<value::Error> loadDb();

    // Replaces the file by the table, atomically and durably.
    [[nodiscard]] std::optional<value::Error> saveDb();

    std::optional<value::Dictionary> annotationForIdentifier(const std::string& annotationKey) const;
    std::optional<value::Dictionary> annotationForPlugIn(const VTDPlugIn& plugIn) const;

    // Merges the annotation into the record, name by name, or without one removes the record; then saves.
    void setAnnotation(const std::optional<value::Dictionary>& annotation, const std::string& annotationKey);
    void setAnnotation(const std::optional<value::Dictionary>& annotation, const VTDPlugIn& plugIn);

    const std::string& annotationsURL() const { return annotationsURL_; }
    value::Dictionary annotations() const { return annotations_.load(); }

private:
    explicit VTDAnnotationStore(std::string annotationsURL);

    std::optional<value::Error> takeLock();
    std::optional<value::Error> keepReplacedFile();

    const std::string annotationsURL_;
    VTAtomic<value::Dictionary> annotations_;

    // On the database's queue.
    std::optional<lock::LockFile> lock_;
    std::optional<file::Stamp> saved_;  // of the file, when it is the table as it was saved last
    bool fileHoldsMore_ = false;        // than the table: the next save keeps the file beside the one that replaces it
};
