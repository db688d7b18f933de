#include "vtd/RequestPaths.h"

#include <algorithm>
#include <ctime>

#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/file/File.h"
#include "platform/mounts/Mounts.h"
#include "platform/queue/Errands.h"

namespace {

// What is looked at on the connection's own thread: as much as costs less than to hand it on.
constexpr std::size_t kMostAtHand = 4;
constexpr std::size_t kLongestAtHand = 1024;

// Bundles of one request that are read beforehand, and kept in memory until its turn comes. The registry reads others.
constexpr std::size_t kBundlesRead = 8;

// What the results may take for each byte of the request: a few bytes can name a path of a thousand.
constexpr std::size_t kBytesAByte = 8;
constexpr std::size_t kBytesAnyway = std::size_t{64} << 10;

// Time that the thread has had of a processor: how long a chain of links takes nobody can tell from its text.
std::uint64_t unitsSoFar() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    const auto nanoseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(now.tv_nsec);
    return nanoseconds * effort::kUnitsAMicrosecond / 1000;
}

// Where many such ways are stuck, those that may never end are not gone.
std::optional<std::string> canonicalPath(const std::string& path) {
    return queue::Errands::shared().isCrowded() ? mounts::canonicalPathWhereAnswered(path) : file::canonicalPath(path);
}

bool isAbsolute(mox::View element) {
    const auto path = element.string();
    return path && path->starts_with('/');
}

}  // namespace

std::shared_ptr<RequestPaths> RequestPaths::of(const mox::Request& request) {
    const auto name = request.view().find(VTKey::request);
    const auto text = name ? name->string() : std::nullopt;
    if (!text) return nullptr;
    const bool isLock = *text == VTRequest::lock;
    if (!isLock && *text != VTRequest::add && *text != VTRequest::remove) return nullptr;
    const auto paths = mox_dictionary_get_array(request.view(), VTKey::paths);
    if (!paths || paths->count() == 0 || (isLock && mox_dictionary_get_array(request.view(), VTKey::uuids)))
        return nullptr;
    return std::make_shared<RequestPaths>(request,
                                          isLock                    ? Purpose::lock
                                          : *text == VTRequest::add ? Purpose::add
                                                                    : Purpose::remove,
                                          *paths);
}

RequestPaths::RequestPaths(const mox::Request& request, Purpose purpose, mox::View paths)
    : request_{request}, paths_{paths}, purpose_{purpose} {}

void RequestPaths::collect() {
    std::unordered_map<std::string_view, std::uint32_t> known;
    elements_.reserve(paths_.count());
    paths_.forEachElement([&](mox::View element) {
        if (!isAbsolute(element)) return false;
        const std::string_view sent = *element.string();
        const auto [at, isNew] = known.try_emplace(sent, static_cast<std::uint32_t>(distinct_.size()));
        if (isNew) distinct_.push_back({.sent = sent, .canonical = {}, .former = {}, .files = nullptr});
        elements_.push_back(at->second);
        return true;
    });
    account_.grantShares(distinct_.size());
    static_cast<void>(account_.take(effort::ofBytes(paths_.size()) + elements_.size() * 10));
}

bool RequestPaths::resolveAtHand() {
    if (purpose_ == Purpose::add || paths_.count() > kMostAtHand || paths_.size() > kLongestAtHand) return false;
    collect();
    const bool all = std::all_of(distinct_.begin(), distinct_.end(), [](Path& path) {
        path.canonical = file::canonicalPathAtHand(std::string{path.sent});
        return path.canonical.has_value();
    });
    if (all) {
        static_cast<void>(account_.take(distinct_.size() * effort::kFileOpened));
        outcome_ = Outcome::done;
    }
    return all;
}

void RequestPaths::resolve() {
    if (elements_.empty()) collect();
    std::size_t bytesLeft = kBytesAByte * paths_.size() + kBytesAnyway;
    std::size_t bundlesLeft = kBundlesRead;
    for (Path& path : distinct_) {
        const std::uint64_t before = unitsSoFar();
        resolve(path);
        if (purpose_ == Purpose::add && path.canonical && bundlesLeft > 0) {
            --bundlesLeft;
            path.files = dravo::readBundleFiles(*path.canonical);
        }
        const std::size_t bytes = path.canonical.value_or("").size() + path.former.value_or("").size();
        const bool isTooLarge = bytes > bytesLeft;
        bytesLeft -= std::min(bytes, bytesLeft);
        if (!account_.take(isTooLarge ? effort::kLimit * 1000 : unitsSoFar() - before)) return;
    }
}

void RequestPaths::resolve(Path& path) const {
    path.canonical = canonicalPath(std::string{path.sent});
    if (path.canonical || purpose_ != Purpose::remove) return;
    // What is gone from the disk is still known by the path under which it was registered: the one given, or the one
    // that leads there through the links that are left.
    std::string_view known = path.sent;
    while (known.ends_with('/') || known.ends_with("/.")) known.remove_suffix(1);
    const std::size_t slash = known.rfind('/');
    if (slash == std::string_view::npos) return;
    path.former = canonicalPath(std::string{known.substr(0, slash + 1)});
    if (path.former) path.former->append(path.former->ends_with('/') ? known.substr(slash + 1) : known.substr(slash));
}
