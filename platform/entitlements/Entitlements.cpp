#include "platform/entitlements/Entitlements.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/effort/Effort.h"
#include "platform/file/Beneath.h"
#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/mox/PeerProgram.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"

namespace entitlements {

namespace {

constexpr std::size_t kLimit = std::size_t{1} << 20;
constexpr std::size_t kMostValues = 10'000;

value::Error refusal(const std::string& path, std::string_view reason) {
    return value::posixError(EPERM, text::format("entitlements of {} not honoured, {}", path, reason));
}

// Why an owner and a mode make the content anybody's word; null when they do not.
const char* distrust(uid_t owner, mode_t mode) {
    if (owner != 0 && owner != geteuid()) return "owned by another user";
    return (mode & (S_IWGRP | S_IWOTH)) != 0 ? "writable by others" : nullptr;
}

// Whether the open directory is, right now, what lies at its path, and the path a part of the system volume. Asked only
// when there is a private name to decide about.
bool onSystemVolume(const struct stat& directory, const std::string& bundlePath) {
    const auto canonical = file::canonicalPath(bundlePath);
    const auto volume = file::canonicalPath(paths::directories().systemVolume);
    if (!canonical || !volume || !file::isBeneath(*canonical, *volume)) return false;
    struct stat found {};
    return lstat(canonical->c_str(), &found) == 0 && file::isSameFile(found, directory);
}

bool ownedBySystem(uid_t owner) {
    return owner == 0 || (paths::directories().privateRoot && owner == geteuid());
}

bool hasPrivateName(const value::Dictionary& content) {
    for (const value::Dictionary::Entry& entry : content) {
        if (entry.key.starts_with(kPrivatePrefix)) return true;
    }
    return false;
}

value::Dictionary withoutPrivateNames(const value::Dictionary& content) {
    value::Dictionary::Builder kept;
    for (const value::Dictionary::Entry& entry : content) {
        if (!entry.key.starts_with(kPrivatePrefix)) kept.set(entry.key, entry.value);
    }
    return std::move(kept).build();
}

}  // namespace

value::Result<value::Dictionary> ofBundle(int bundleDirectory, const std::string& bundlePath) {
    const auto contents = file::readRegularBeneath(bundleDirectory, kFile, kLimit);
    if (!contents) {
        const bool missing = contents.error().domain == "posix" && contents.error().code == ENOENT;
        if (missing) return value::Dictionary{};
        return contents.error();
    }
    struct stat directory {};
    if (fstat(bundleDirectory, &directory) != 0) return value::posixError(errno, bundlePath);
    if (!S_ISDIR(directory.st_mode)) return value::posixError(ENOTDIR, bundlePath);
    if (const char* reason = distrust(directory.st_uid, directory.st_mode)) return refusal(bundlePath, reason);
    const std::string path = bundlePath + "/" + kFile;
    if (const char* reason = distrust(contents->owner, contents->mode)) return refusal(path, reason);

    static_cast<void>(effort::take(effort::kFileOpened + effort::ofParsing(contents->bytes.size())));
    const auto list = plist::read(contents->bytes, {.bytes = kLimit, .values = kMostValues});
    if (!list) {
        value::Error error = list.error();
        error.message = path + ": " + error.localizedDescription();
        return error;
    }
    const value::Dictionary* content = list->dictionary();
    if (content == nullptr) return refusal(path, "not a dictionary");
    if (!hasPrivateName(*content)) return *content;
    const bool trusted =
        ownedBySystem(directory.st_uid) && ownedBySystem(contents->owner) && onSystemVolume(directory, bundlePath);
    return trusted ? *content : withoutPrivateNames(*content);
}

SecurityTask::SecurityTask(std::shared_ptr<const mox::PeerIdentity> peer) : peer_{std::move(peer)} {}

value::Result<std::optional<value::Value>> SecurityTask::value(std::string_view name) const {
    if (!peer_ || !peer_->program || !peer_->program->executablePath) return std::optional<value::Value>{};
    const auto& entitlements = peer_->program->entitlements;
    if (!entitlements) {
        if (!said_.exchange(true)) logging::notice("no entitlements, " + entitlements.error().localizedDescription());
        return entitlements.error();
    }
    const value::Value* found = entitlements->find(name);
    return found == nullptr ? std::optional<value::Value>{} : std::optional{*found};
}

}  // namespace entitlements
