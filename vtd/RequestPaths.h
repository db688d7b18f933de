#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/dravo/BundleFiles.h"
#include "platform/effort/Effort.h"
#include "platform/mox/Connection.h"

// Where the "paths" of one request lead, found out before the request has its turn: what looking at a path costs, and
// whether a file system on the way ever answers, is up to whoever names it. Each distinct path is looked at once, and
// the cost charged to the request's account, to which each brings a share.
//
// Ownership: keeps its request, in which the paths lie.
// Threading: none of its own; it is handed from the connection's queue to an errand, and from there to the service
// queue. Only `outcome` is set and read anywhere: as long as it is not "done" the errand may still be at it.
class RequestPaths {
public:
    enum class Purpose : std::uint8_t { add, remove, lock };
    struct Path {
        std::string_view sent;
        std::optional<std::string> canonical;
        // Of one to be removed that leads nowhere: where it would lie by what is left of the way.
        std::optional<std::string> former;
        // Of one to be added: what the bundle's files say, where that could be read.
        std::shared_ptr<const dravo::BundleFiles> files;
    };

    // Null where the request's handler looks at no path, or there is none.
    static std::shared_ptr<RequestPaths> of(const mox::Request& request);

    RequestPaths(const mox::Request& request, Purpose purpose, mox::View paths);

    // Resolves all of them where that neither blocks nor takes time; false when it would.
    bool resolveAtHand();
    void resolve();  // may block for ever

    enum class Outcome : std::uint8_t { pending, done, refused };  // refused: too much of this process's blocks already
    Outcome outcome() const { return outcome_; }
    void setOutcome(Outcome outcome) { outcome_ = outcome; }

    // The element's path; the list ends before the first element that is no absolute path.
    const Path& operator[](std::size_t element) const { return distinct_[elements_[element]]; }

    effort::Account& account() { return account_; }  // the request's

private:
    void collect();
    void resolve(Path& path) const;

    const mox::Request request_;
    const mox::View paths_;
    const Purpose purpose_;
    std::vector<std::uint32_t> elements_;  // which distinct path each is
    std::vector<Path> distinct_;
    effort::Account account_;
    std::atomic<Outcome> outcome_{Outcome::pending};
};
