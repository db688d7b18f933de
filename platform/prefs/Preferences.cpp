#include "platform/prefs/Preferences.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "platform/file/File.h"
#include "platform/lock/LockFile.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"

namespace prefs {

namespace {

constexpr plist::Limits kLimits{.bytes = std::size_t{4} << 20};
constexpr std::chrono::milliseconds kPatience{2000};

std::string hostName() {
    std::array<char, 256> name{};  // the kernel's names have 64 bytes at most
    if (::gethostname(name.data(), name.size() - 1) != 0) return {};
    return name.data();
}

std::string directory() {
    return paths::directories().config + "/preferences";
}

std::string baseOf(std::string_view domain, const std::string& host) {
    return directory() + '/' + file::encodedName(std::string{domain} + '.' + host);
}

// What a file holds, as a domain: no file is an empty one.
value::Result<value::Dictionary> contentOf(const plist::KeptFile::Reading& reading, const std::string& path) {
    if (reading.fault) return *reading.fault;
    if (!reading.root) return value::Dictionary{};
    if (const value::Dictionary* content = reading.root->dictionary()) return *content;
    return value::Error{"prefs", 1, "reading " + path + ": not a dictionary"};
}

value::Result<value::Dictionary> readDomain(const std::string& path) {
    return contentOf(plist::KeptFile{path, kLimits}.read(), path);
}

std::optional<value::Value> valueIn(const value::Dictionary& content, std::string_view key) {
    const value::Value* found = content.find(key);
    return found != nullptr ? std::optional{*found} : std::nullopt;
}

value::Error withRemedy(value::Error error) {
    error.message =
        error.localizedDescription() + "; nothing was changed: mend the file or move it away, then try again";
    return error;
}

}  // namespace

std::string pathOf(std::string_view domain) {
    return baseOf(domain, hostName()) + ".plist";
}

value::Result<std::optional<value::Value>> read(std::string_view domain, std::string_view key) {
    const auto content = readDomain(pathOf(domain));
    if (!content) return content.error();
    return valueIn(*content, key);
}

std::optional<value::Error> update(std::string_view domain, std::string_view key, const Change& change) {
    const std::string base = baseOf(domain, hostName());
    const std::string path = base + ".plist";
    if (auto error = file::makeDirectories(directory(), 0700)) return error;
    const auto lock = lock::LockFile::takeWithin(base + ".lock", kPatience);
    if (!lock) return lock.error();

    const auto content = readDomain(path);
    if (!content) return withRemedy(content.error());
    const std::optional<value::Value> stored = valueIn(*content, key);
    auto changed = change(stored);
    if (!changed) return changed.error();
    if (!*changed && !stored) return {};
    const auto text = plist::writeXml(content->changing(key, *std::move(changed)));
    if (!text) {
        value::Error error = text.error();
        error.message = path + " cannot be written: " + error.localizedDescription();
        return withRemedy(std::move(error));
    }
    if (text->size() > kLimits.bytes) {
        return value::posixError(EFBIG, path + " would become too large, nothing was changed");
    }
    return file::writeAtomically(path, *text);
}

void UserDefaults::addSuite(std::string domain) {
    const std::lock_guard guard{mutex_};
    domains_.try_emplace(std::move(domain));
}

bool UserDefaults::synchronise(std::string_view name) {
    const std::lock_guard guard{mutex_};
    const auto found = domains_.find(std::string{name});
    if (found == domains_.end()) return false;
    Domain& domain = found->second;
    const std::string host = hostName();
    const bool moved = !domain.file || domain.host != host;
    if (moved) {
        domain.host = host;
        domain.file.emplace(baseOf(name, host) + ".plist", kLimits);
    }
    const plist::KeptFile::Reading& reading = domain.file->read();
    if (!reading.news && !moved) return false;
    const auto content = contentOf(reading, domain.file->path());
    if (!content) logging::error("preferences count as empty, " + content.error().localizedDescription());
    domain.content = content ? *content : value::Dictionary{};
    return true;
}

std::optional<value::Value> UserDefaults::copyValue(std::string_view key, std::string_view domain) const {
    const std::lock_guard guard{mutex_};
    const auto found = domains_.find(std::string{domain});
    return found != domains_.end() ? valueIn(found->second.content, key) : std::nullopt;
}

}  // namespace prefs
