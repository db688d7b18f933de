#include "platform/mox/PeerProgram.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "platform/entitlements/Entitlements.h"
#include "platform/file/Beneath.h"
#include "platform/mounts/Mounts.h"
#include "platform/mox/Encoder.h"
#include "platform/queue/Errands.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr std::size_t kLongestPath = 2047;
constexpr std::size_t kSmall = std::size_t{16} << 10;

std::optional<std::string> readLink(const std::string& path) {
    std::array<char, kLongestPath + 1> text;
    const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
    if (length <= 0 || static_cast<std::size_t>(length) > kLongestPath) return {};
    return std::string{text.data(), static_cast<std::size_t>(length)};
}

bool hasOurPids(pid_t pid) {
    const auto theirs = identify(text::format("/proc/{}/ns/pid", pid));
    return theirs && theirs == identify("/proc/self/ns/pid");
}

// Threads of their own: whatever clients' paths hold up, who connects is looked at. Never destroyed, since some may be
// stuck.
queue::Errands& errands() {
    static queue::Errands& errands = *new queue::Errands{{.threads = 128, .threadsInAll = 512}};
    return errands;
}

// The directory that was opened, and not only one that had the name a moment ago, must be where the peer runs from.
void readEntitlements(PeerProgram& program, const FileId& executable) {
    const std::string& path = *program.executablePath;
    const auto bundlePath = program.bundle->bundlePath();
    if (!bundlePath || !file::isBeneath(path, *bundlePath)) return;
    const file::UniqueFd directory{::open(bundlePath->c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!directory) return;
    const std::string inside =
        text::format("/proc/self/fd/{}/{}", directory.get(), file::nameBeneath(path, *bundlePath));
    if (identify(inside, AT_SYMLINK_NOFOLLOW) != executable) return;
    program.entitlements = entitlements::ofBundle(directory.get(), *bundlePath);
}

// May block for as long as the peer likes. Whether the process is still what it was is asked afterwards.
void lookAt(pid_t pid, const std::optional<FileId>& executable, PeerProgram& program) {
    const auto path = readLink(text::format("/proc/{}/exe", pid));
    if (!executable || !path || !path->starts_with('/') || !hasOurPids(pid)) return;
    if (errands().isCrowded() && mounts::canonicalPathWhereAnswered(*path) != path) return;
    if (identify(*path, AT_SYMLINK_NOFOLLOW) != executable) return;
    program.executablePath = path;
    program.bundle = bundle::essentialsOf(*bundle::Bundle::open(*path, bundle::PathKind::executable));
    readEntitlements(program, *executable);
}

// Roughly, in memory.
std::size_t sizeOf(const PeerProgram& program) {
    constexpr std::size_t kAtLeast = 1024;
    constexpr std::size_t kOfEncoded = 8;
    std::size_t size = kAtLeast;
    if (program.executablePath) size += 2 * program.executablePath->size();
    if (const auto info = program.bundle ? program.bundle->infoDictionary() : std::nullopt)
        size += kOfEncoded * encodedSize(*info);
    if (program.entitlements) size += kOfEncoded * encodedSize(*program.entitlements);
    return size;
}

}  // namespace

PeerPrograms& PeerPrograms::shared() {
    static PeerPrograms& programs = *new PeerPrograms;  // errands that never come back refer to it
    return programs;
}

std::shared_ptr<const PeerProgram> PeerPrograms::find(const PeerIdentity& peer, const std::shared_ptr<Ledger>& ledger,
                                                      Found found) {
    const Key key{{peer.pid, peer.startTime}, peer.executable};
    std::shared_ptr<const PeerProgram> known;
    {
        const std::lock_guard lock{mutex_};
        Entry& entry = entries_[key];
        if ((known = entry.known.lock())) return known;
        entry.waiting.push_back(std::move(found));
        if (entry.waiting.size() > 1) return {};
    }
    const auto program = std::make_shared<std::unique_ptr<PeerProgram>>(std::make_unique<PeerProgram>());
    errands().run(
        {peer.pid, peer.startTime}, [key, program] { lookAt(key.process.pid, key.executable, **program); },
        [this, key, program, ledger](queue::Errands::Outcome outcome) {
            if (outcome == queue::Errands::Outcome::refused) return finish(key, {});
            (*program)->charge.emplace(ledger->openShared(key.process), Holdings{.kept = sizeOf(**program)});
            finish(key, std::move(*program));
        });
    return {};
}

void PeerPrograms::finish(const Key& key, std::unique_ptr<PeerProgram> program) {
    std::shared_ptr<const PeerProgram> known;
    if (program) {
        known = {program.release(), [this, key](const PeerProgram* gone) {
                     delete gone;
                     forget(key);
                 }};
    }
    std::vector<Found> waiting;
    std::shared_ptr<const PeerProgram> former = known && sizeOf(*known) <= kSmall ? known : nullptr;
    {
        const std::lock_guard lock{mutex_};
        const auto at = entries_.find(key);
        waiting.swap(at->second.waiting);
        at->second.known = known;
        if (!known) entries_.erase(at);
        if (former) recent_.at(nextRecent_++ % kRecent).swap(former);  // which goes outside the lock
    }
    for (const Found& found : waiting) found(known);
}

// The last connection has gone, unless another has come in the meantime.
void PeerPrograms::forget(const Key& key) {
    const std::lock_guard lock{mutex_};
    const auto at = entries_.find(key);
    if (at != entries_.end() && at->second.waiting.empty() && at->second.known.expired()) entries_.erase(at);
}

}  // namespace mox
