#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "platform/digest/Checksum.h"
#include "platform/dravo/Dravo.h"
#include "platform/dravo/store/WorkingCopy.h"
#include "platform/file/UniqueFd.h"
#include "platform/value/Uuid.h"

namespace dravo {

// The images that the registry keeps for its user (DVVeltoProxy::image), in one file beside the store. All of it is
// derived: whatever is damaged, from another build of the program or for another state of a plug-in is passed over, and
// made again by whoever wants it. Deleting the file costs that, and nothing else. doc/platform.md has its layout. What
// of it is used is used in a copy (WorkingCopy), so that the file may be cut, overwritten or deleted at any time.
//
// New images are appended; one that is no longer good stays until the file is compacted. The file is never synced: what
// a power cut takes from it is seen by the checksums.
//
// Any thread. Trouble with the file is logged once, and then nothing is kept.
class Images {
public:
    // What an image was made for: whose it is, and a digest of all that went into it.
    struct Key {
        value::Uuid uuid;
        digest::Fingerprint madeOf;
    };

    // Where the image was last found, so that it need not be looked for. The user's to keep; it may be lost.
    using Place = std::atomic<std::uint64_t>;

    // Makes the file when it is missing. Nobody else may have it open: the registry's lock is held.
    explicit Images(std::string path);
    ~Images();
    Images(const Images&) = delete;
    Images& operator=(const Images&) = delete;

    // An image that this process has not yet read is held against its checksum first, and shown to `isSound`.
    std::optional<DVImage> find(const Key& key, Place& place, DVImage::IsSound isSound);

    // Where the place is known, without a key.
    std::optional<DVImage> at(const Place& place) const;

    void keep(const Key& key, std::span<const std::byte> image, Place& place);

    // Forgets what is of no plug-in that is there.
    using IsInstalled = std::function<bool(const value::Uuid&)>;
    void forgetOthers(const IsInstalled& isInstalled);

    // Whether most of the file is superseded or forgotten.
    bool isWorthCompacting() const;

    // Writes the file anew without that. Takes as long as the disk does; others go on finding and keeping meanwhile.
    // For one thread at a time.
    void compact();

private:
    class Generation;

    std::shared_ptr<WorkingCopy> workingCopy() const;
    std::optional<DVImage> copyOf(std::span<const std::byte> image, Place& place);
    void complainOnce(const std::string& what);
    void giveUp(const char* what, int error);

    const std::string path_;
    mutable std::mutex mutex_;
    std::shared_ptr<Generation> generation_;  // under the mutex, as what follows; null when nothing can be kept
    std::shared_ptr<WorkingCopy> working_;    // not null while there is a generation
    bool complained_ = false;
    std::chrono::steady_clock::time_point notBefore_{};  // a compaction has failed
};

}  // namespace dravo
