#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/file/File.h"
#include "platform/plist/Plist.h"
#include "platform/value/Value.h"

namespace plist {

// A property-list file that is asked for often and changes seldom. While it is unchanged (device, inode, size, times,
// and not within the last tick of the file system's clock) asking costs one look at its directory entry; else it is
// read anew. What cannot be read for a reason that may pass (a lack of descriptors, say) stays as it was.
//
// Threading: one thread at a time; the owner sees to that.
class KeptFile {
public:
    // What was found: a list, a fault, or neither, when there is no file.
    struct Reading {
        std::optional<value::Value> root;
        // Why a file that is there, if only as a link that leads nowhere, could not be read. Names the file.
        std::optional<value::Error> fault;
        std::uint64_t digest = 0;  // of the bytes, or of the fault; 0 when there is no file
        bool stale = false;        // kept for want of a look: to be asked for again, though nothing may have changed
        bool news = false;         // differs from the reading before: what is said about it once a change, is said now
    };

    explicit KeptFile(std::string path, const Limits& limits = {}) : path_{std::move(path)}, limits_{limits} {}

    const std::string& path() const { return path_; }

    // The current content; valid until the next call.
    const Reading& read();

private:
    struct Load {
        Reading reading;
        std::optional<file::Stamp> stamp;
        bool settled = false;  // whether an unchanged stamp proves unchanged content
    };

    Load load(const std::optional<file::Stamp>& seen) const;
    Load decode(const file::Contents& contents) const;

    const std::string path_;
    const Limits limits_;
    Load kept_;
};

}  // namespace plist
