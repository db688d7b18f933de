#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/file/File.h"
#include "platform/lock/LockFile.h"
#include "platform/value/Value.h"

class VTDPlugIn;

// What the user decided about plug-ins, kept over restarts: a table of annotation records, each a dictionary of
// annotation names to values ("election" is the one in use), under the annotation key of the plug-in, an identifier.
// Loaded from one file and written back whole at the end of each round of changes; in between the table is
// authoritative. A round that changes nothing in the table is not written, as long as the file is the one that was
// saved last. Each record keeps the lines that it has in the file, so that a save escapes only what changed.
//
//     file := XML property list {"version": 16, "data": {annotation key: annotation record}}
//
// Clients and bundles choose what is stored, so that records and the whole are bounded by what they take in the file. A
// file from before may hold more: it is loaded, and what is there may be changed, but not grow.
//
// Ownership: the database owns the one store. The store holds the lock beside its file ("FILE.lock"), so that no other
// daemon uses that file while it lives. It lies where the file lies or will lie once links are followed. Where it
// cannot be had at the start (there is no such directory yet), or was removed, the next save takes it; what the file
// holds by then is read first, and what was set meanwhile is set again in that. Threading: changes come from the
// database's queue, one at a time. Reads may come from any thread. Errors: a file that cannot be loaded is logged and
// the table starts empty; a save that fails is logged, the change stands in memory, and the next save that works writes
// all of it. A file that holds anything this store would not write back is kept beside the new one, under a name that
// is logged, by the first save. An annotation that no property list can hold stays in memory only, and keeps no other
// from being saved.
class VTDAnnotationStore {
public:
    static constexpr std::int64_t kVersion = 16;

    // Bytes, as stored.
    static constexpr std::size_t kLargestRecord = std::size_t{64} << 10;
    static constexpr std::size_t kLargestTable = std::size_t{16} << 20;

    // The store of the file at the path, or without one of the default file. An error, before anything is loaded, only
    // when another process uses the file, which it names, or when what is there can never be replaced by a file.
    static value::Result<std::shared_ptr<VTDAnnotationStore>> initWithDatabase(const std::optional<std::string>& path);

    // "Annotations" in "halvern.velto/" of the per-user directory, which is made when missing (0700). A directory that
    // is not to be had ends the daemon.
    static std::string defaultDatabaseURL();

    // The table becomes the file's. On failure the table stays as it is.
    [[nodiscard]] std::optional<value::Error> loadDb();

    // Replaces the file by the table, atomically and durably. What no property list can hold is left out, and is an
    // error of the first save that leaves it out.
    [[nodiscard]] std::optional<value::Error> saveDb();

    std::optional<value::Dictionary> annotationForIdentifier(const std::string& annotationKey) const;
    std::optional<value::Dictionary> annotationForPlugIn(const VTDPlugIn& plugIn) const;

    // Merges the annotation into the record, name by name, or without one removes the record. To be saved by whoever
    // ends the round. Refused, with nothing changed, when the record or the table would grow beyond its bound.
    [[nodiscard]] std::optional<value::Error> setAnnotation(const std::optional<value::Dictionary>& annotation,
                                                            const std::string& annotationKey);

    // The record becomes this one, or none: for who takes back what it has set and nobody has saved.
    void putBack(const std::optional<value::Dictionary>& record, const std::string& annotationKey);

    // Whether anything was set since the last save was tried. Any thread.
    bool isUnsaved() const { return isUnsaved_.load(std::memory_order_acquire); }

    // Saves what was set. A failure is logged; the next round tries again.
    void save();

    const std::string& annotationsURL() const { return annotationsURL_; }
    value::Dictionary annotations() const;  // all records by their keys

    // Whether a property list can hold the value in the place of an annotation.
    static bool isStorable(const value::Value& annotation);

private:
    using Annotation = std::optional<value::Dictionary>;

    struct Record {  // with its text in the file
        value::Dictionary content;
        std::string keyLine;                       // empty: of a key that no list can hold
        std::shared_ptr<const std::string> lines;  // of what a list can hold, shared by records of equal content
        std::optional<value::Error> leftOut;       // what of it no list can hold
        bool isTold = false;                       // a save has said so

        std::size_t size() const { return keyLine.size() + lines->size(); }
    };
    using Table = std::map<std::string, Record, std::less<>>;

    explicit VTDAnnotationStore(std::string annotationsURL);

    std::optional<value::Error> takeLock();
    void loadOrReset();
    std::optional<value::Error> keepReplacedFile();
    std::optional<value::Error> merge(const Annotation& annotation, const std::string& annotationKey);
    void replace(const std::string& annotationKey, std::optional<Record> record);
    Record recordOf(const std::string& annotationKey, value::Dictionary content);
    [[nodiscard]] std::optional<value::Error> writeFile() const;

    const std::string annotationsURL_;
    std::atomic<bool> isUnsaved_{false};

    mutable std::mutex mutex_;
    Table table_;  // changed on the database's queue under the lock; read there, or anywhere under the lock

    // On the database's queue.
    std::size_t size_ = 0;                       // of all records
    bool isChanged_ = false;                     // by what was set since the last save that worked
    std::map<std::string, Annotation> unsaved_;  // set since the last save that worked, or since the file was read
    std::optional<Record> latest_;               // in this round: a request often makes many records alike
    std::optional<lock::LockFile> lock_;
    std::optional<file::Stamp> saved_;  // of the file, when it is the table as it was saved last
    bool fileHoldsMore_ = false;        // than the table: the next save keeps the file beside the one that replaces it
};
