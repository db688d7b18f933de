#include "platform/bundle/Bundle.h"

#include <sys/stat.h>

#include <filesystem>
#include <mutex>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"

namespace bundle {

namespace {

// An Info.plist that could be read, whether or not it holds a dictionary.
struct Info {
    std::optional<value::Dictionary> dictionary;
};

std::shared_ptr<const Info> parseInfo(const value::Result<file::Contents>& contents, const std::string& bundlePath) {
    if (!contents) return nullptr;
    auto info = std::make_shared<Info>();
    const auto root = plist::read(contents->bytes, {.bytes = kInfoLimit, .values = kInfoValues});
    const value::Dictionary* dictionary = root ? root->dictionary() : nullptr;
    if (dictionary != nullptr) {
        info->dictionary = *dictionary;
    } else {
        logging::warning(text::format("{}/{}: {}", bundlePath, kInfoFile,
                                      root ? "not a dictionary" : root.error().localizedDescription()));
    }
    return info;
}

std::shared_ptr<const Info> readInfo(const std::string& bundlePath) {
    const std::string path = text::format("{}/{}", bundlePath, kInfoFile);
    return parseInfo(file::readRegular(path, kInfoLimit, file::FinalLink::refused), bundlePath);
}

bool isPlainName(std::string_view name) {
    constexpr std::string_view kNotInNames{"/\0", 2};
    return !name.empty() && name != "." && name != ".." && name.find_first_of(kNotInNames) == std::string_view::npos;
}

// A bundle at a path; without one, the bundle that was not found.
class BundleOnDisk final : public Bundle {
public:
    BundleOnDisk() = default;
    explicit BundleOnDisk(std::string path, std::shared_ptr<const Info> info = nullptr)
        : path_{std::move(path)}, info_{std::move(info)} {}
    BundleOnDisk(std::string path, file::UniqueFd directory)
        : path_{std::move(path)}, directory_{std::move(directory)} {}

    std::optional<std::string> bundlePath() const override {
        return info() != nullptr ? std::optional{path_} : std::nullopt;
    }

    std::optional<std::string> executablePath() const override {
        const auto dictionary = infoDictionary();
        return dictionary ? executableInBundle(path_, *dictionary) : std::nullopt;
    }

    std::optional<std::string> supportPath() const override { return bundlePath(); }

    std::optional<value::Dictionary> infoDictionary() const override {
        const auto known = info();
        return known != nullptr ? known->dictionary : std::nullopt;
    }

    void flushCache() const override {
        const std::lock_guard lock{mutex_};
        info_.reset();
    }

private:
    // Reads without the lock: two threads that come at once may both read, and one result is kept.
    std::shared_ptr<const Info> info() const {
        if (auto kept = keep(nullptr); kept != nullptr || path_.empty()) return kept;
        if (!directory_) return keep(readInfo(path_));
        return keep(parseInfo(file::readRegularBeneath(directory_.get(), kInfoFile, kInfoLimit), path_));
    }

    std::shared_ptr<const Info> keep(std::shared_ptr<const Info> read) const {
        const std::lock_guard lock{mutex_};
        if (info_ == nullptr) info_ = std::move(read);
        return info_;
    }

    const std::string path_;            // empty: no bundle
    const file::UniqueFd directory_{};  // empty: whatever lies at the path
    mutable std::mutex mutex_;
    mutable std::shared_ptr<const Info> info_;  // guarded by the mutex; null: not read, or nothing was recognised
};

class KnownBundle final : public Bundle {
public:
    KnownBundle(std::optional<std::string> path, std::optional<value::Dictionary> info)
        : path_{std::move(path)}, info_{std::move(info)} {}

    std::optional<std::string> bundlePath() const override { return path_; }
    std::optional<std::string> executablePath() const override {
        return path_ && info_ ? executableInBundle(*path_, *info_) : std::nullopt;
    }
    std::optional<std::string> supportPath() const override { return path_; }
    std::optional<value::Dictionary> infoDictionary() const override { return info_; }
    void flushCache() const override {}

private:
    const std::optional<std::string> path_;
    const std::optional<value::Dictionary> info_;
};

bool liesAt(const std::string& path, const struct stat& file) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && file::isSameFile(status, file);
}

std::shared_ptr<const Bundle> bundleOfExecutable(const std::string& path) {
    constexpr int kLevels = 6;
    const auto notFound = std::make_shared<const BundleOnDisk>();
    const auto executable = file::canonicalPath(path);
    struct stat status {};
    if (!executable || ::stat(executable->c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return notFound;
    std::filesystem::path directory = std::filesystem::path{*executable}.parent_path();
    for (int level = 0; level < kLevels; ++level, directory = directory.parent_path()) {
        auto info = readInfo(directory);
        const auto named =
            info != nullptr && info->dictionary ? executableInBundle(directory, *info->dictionary) : std::nullopt;
        if (named && liesAt(*named, status)) return std::make_shared<const BundleOnDisk>(directory, std::move(info));
        if (!directory.has_relative_path()) break;  // the root
    }
    return notFound;
}

std::optional<std::string> nameIn(const value::Dictionary& info, const char* key) {
    const std::string* const text = info.string(key);
    const bool sensible = text != nullptr && text->size() <= kNameLimit && text->find('\0') == std::string::npos;
    return sensible ? std::optional{*text} : std::nullopt;
}

std::string withoutTrailingSeparators(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

std::shared_ptr<const Bundle> Bundle::open(const std::string& path, PathKind kind) {
    if (path.find('\0') != std::string::npos) return std::make_shared<const BundleOnDisk>();
    if (kind == PathKind::executable) return bundleOfExecutable(path);
    return std::make_shared<const BundleOnDisk>(withoutTrailingSeparators(path));
}

std::shared_ptr<const Bundle> Bundle::openAt(file::UniqueFd directory, std::string path) {
    return std::make_shared<const BundleOnDisk>(std::move(path), std::move(directory));
}

std::shared_ptr<const Bundle> Bundle::openMain() {
    std::error_code unknown;  // leaves an empty path, where no bundle is
    return open(std::filesystem::read_symlink("/proc/self/exe", unknown), PathKind::executable);
}

std::shared_ptr<const Bundle> essentialsOf(const Bundle& bundle) {
    std::optional<value::Dictionary> essentials;
    if (const auto info = bundle.infoDictionary()) {
        value::Dictionary::Builder kept;
        for (const char* key : {kIdentifierKey, kExecutableKey, kVersionKey, kNameKey, kDisplayNameKey}) {
            const value::Value* const found = info->find(key);
            if (found != nullptr && (found->isNumber() || nameIn(*info, key))) kept.set(key, *found);
        }
        essentials = std::move(kept).build();
    }
    return std::make_shared<const KnownBundle>(bundle.bundlePath(), std::move(essentials));
}

std::optional<std::string> executableInBundle(const std::string& bundlePath, const value::Dictionary& info) {
    const std::string* name = info.string(kExecutableKey);
    if (name == nullptr || !isPlainName(*name)) return {};
    return bundlePath.ends_with('/') ? bundlePath + *name : bundlePath + "/" + *name;
}

std::string identifierOf(const value::Dictionary& info) {
    return nameIn(info, kIdentifierKey).value_or(std::string{});
}

std::string versionOf(const value::Dictionary& info) {
    if (auto text = nameIn(info, kVersionKey)) return *text;
    const value::Value* const other = info.find(kVersionKey);
    return other != nullptr && other->isNumber() ? value::description(*other) : std::string{};
}

}  // namespace bundle
