#include "vtd/VTDAnnotationStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/VTDPlugIn.h"

namespace {

constexpr char kUnit[] = "vtd/VTDAnnotationStore";
constexpr char kVersionKey[] = "version";
constexpr char kDataKey[] = "data";

// Far beyond what any user's decisions amount to: what was saved must also load, however much clients have stored. No
// list of so many bytes has more values.
constexpr plist::Limits kLimits{std::size_t{256} << 20, 64, (std::size_t{256} << 20) / 8};

value::Dictionary rootOf(value::Dictionary table) {
    return {{kVersionKey, VTDAnnotationStore::kVersion}, {kDataKey, std::move(table)}};
}

// What of the file's "data" can be an annotation table: its records that are dictionaries.
value::Dictionary tableOf(const value::Dictionary& root) {
    const value::Dictionary* const stored = root.dictionary(kDataKey);
    if (stored == nullptr) return {};
    value::Dictionary::Builder table;
    for (const auto& [annotationKey, record] : *stored) {
        if (record.dictionary() != nullptr) table.set(annotationKey, record);
    }
    return std::move(table).build();
}

bool isMissingFile(const value::Error& error) {
    return error.domain == "posix" && error.code == ENOENT;
}

bool isHeldLock(const value::Error& error) {
    return error.domain == "posix" && error.code == EWOULDBLOCK;
}

// The table without the annotations that no property list can hold (clients choose what they store).
value::Dictionary writablePart(const value::Dictionary& table) {
    value::Dictionary::Builder writable;
    for (const auto& [annotationKey, record] : table) {
        value::Dictionary::Builder names;
        for (const auto& [name, annotation] : *record.dictionary()) {
            if (plist::writeXml(value::Dictionary{{name, annotation}})) names.set(name, annotation);
        }
        if (plist::writeXml(value::Dictionary{{annotationKey, true}})) {
            writable.set(annotationKey, std::move(names).build());
        }
    }
    return std::move(writable).build();
}

// A second name for the file: a link, or where the file system has none a copy.
std::optional<value::Error> duplicate(const std::string& path, const std::string& as) {
    if (::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, as.c_str(), AT_SYMLINK_FOLLOW) == 0) return {};
    const int linkError = errno;
    if (linkError == EEXIST) return value::posixError(linkError, as);
    const auto contents = file::readRegular(path, kLimits.bytes);
    if (!contents) return contents.error();
    return file::writeAtomically(as, contents->bytes);
}

}  // namespace

VTDAnnotationStore::VTDAnnotationStore(std::string annotationsURL) : annotationsURL_{std::move(annotationsURL)} {}

value::Result<std::shared_ptr<VTDAnnotationStore>> VTDAnnotationStore::initWithDatabase(
    const std::optional<std::string>& path) {
    const std::shared_ptr<VTDAnnotationStore> store{new VTDAnnotationStore{path ? *path : defaultDatabaseURL()}};

    // Where no lock can be made nothing can be saved either; the first save tries again.
    if (auto error = store->takeLock(); error && isHeldLock(*error)) return *std::move(error);

    if (const auto error = store->loadDb(); error && !isMissingFile(*error)) {
        logging::notice(text::format("unable to load annotation database:{} error:{} (resetting)",
                                     store->annotationsURL_, error->localizedDescription()));
        store->fileHoldsMore_ = true;
    }
    return store;
}

std::string VTDAnnotationStore::defaultDatabaseURL() {
    constexpr std::size_t kLongest = 1024;
    const std::string& state = paths::directories().state;
    if (state.empty() || state.size() >= kLongest) {
        logging::internalInconsistency(text::format("unable to locate user directory: errno {}", ENAMETOOLONG), kUnit);
    }
    const std::string directory = state + "/halvern.velto/";
    if (const auto error = file::makeDirectories(directory, 0700)) {
        logging::internalInconsistency(text::format("unable to create plugin annotations directory:{} error:{}",
                                                    directory, error->localizedDescription()),
                                       kUnit);
    }
    return directory + "Annotations";
}

std::optional<value::Error> VTDAnnotationStore::loadDb() {
    const auto failed = [](value::Error error) {
        probes::dbLoad(error.domain, error.code);
        return error;
    };
    const auto read = plist::readFile(annotationsURL_, kLimits);
    if (!read) return failed(read.error());

    const value::Dictionary* const dictionary = read->dictionary();
    const value::Dictionary root = dictionary != nullptr ? *dictionary : value::Dictionary{};
    const value::Value* const stored = root.find(kVersionKey);
    const std::int64_t version = stored != nullptr ? stored->integerValue().value_or(0) : 0;
    if (version != kVersion) {
        return failed(
            VTErrorWithFormat(VTErrorVersion, "found database version {} needed version {}", version, kVersion));
    }
    value::Dictionary table = tableOf(root);
    fileHoldsMore_ = root != rootOf(table);
    if (fileHoldsMore_) {
        logging::notice(text::format("ignoring what is no annotation in {}", annotationsURL_));
    }
    annotations_.store(std::move(table));
    return {};
}

std::optional<value::Error> VTDAnnotationStore::saveDb() {
    saved_.reset();
    if (auto error = takeLock()) return error;

    std::optional<value::Error> leftOut;
    const value::Dictionary table = annotations();
    value::Result<std::string> xml = plist::writeXml(rootOf(table));
    if (!xml) {
        leftOut = xml.error();
        xml = plist::writeXml(rootOf(writablePart(table)));
        if (!xml) return xml.error();
    }
    // What would not load again must not replace what does.
    if (xml->size() > kLimits.bytes) return value::posixError(EFBIG, annotationsURL_);
    if (auto error = keepReplacedFile()) return error;
    if (auto error = file::writeAtomically(annotationsURL_, *xml)) return error;
    if (!leftOut) saved_ = file::stampOf(annotationsURL_);
    return leftOut;
}

std::optional<value::Error> VTDAnnotationStore::takeLock() {
    if (lock_) return {};
    auto lock = lock::LockFile::take(file::canonicalPath(annotationsURL_).value_or(annotationsURL_) + ".lock");
    if (!lock) return lock.error();
    lock_.emplace(*std::move(lock));
    return {};
}

std::optional<value::Error> VTDAnnotationStore::keepReplacedFile() {
    constexpr int kMostKept = 1000;
    if (!fileHoldsMore_) return {};
    const std::optional<std::string> replaced = file::canonicalPath(annotationsURL_);
    if (!replaced && errno != ENOENT) return value::posixError(errno, "cannot find " + annotationsURL_);
    std::optional<value::Error> error;
    for (int number = 1; replaced && number <= kMostKept; ++number) {
        const std::string kept = text::format("{}.unreadable-{}", *replaced, number);
        error = duplicate(*replaced, kept);
        if (!error) {
            logging::notice(text::format("keeping what {} held as {}", *replaced, kept));
            break;
        }
        if (error->code != EEXIST) break;
    }
    if (!error) fileHoldsMore_ = false;
    return error;
}

std::optional<value::Dictionary> VTDAnnotationStore::annotationForIdentifier(const std::string& annotationKey) const {
    const value::Dictionary table = annotations();
    const value::Dictionary* const record = table.dictionary(annotationKey);
    return record != nullptr ? std::optional{*record} : std::nullopt;
}

std::optional<value::Dictionary> VTDAnnotationStore::annotationForPlugIn(const VTDPlugIn& plugIn) const {
    return annotationForIdentifier(plugIn.annotationKey());
}

void VTDAnnotationStore::setAnnotation(const std::optional<value::Dictionary>& annotation,
                                       const std::string& annotationKey) {
    const std::optional<value::Dictionary> before = annotationForIdentifier(annotationKey);
    std::optional<value::Dictionary> record;
    if (annotation) {
        value::Dictionary::Builder merged{before.value_or(value::Dictionary{})};
        for (const auto& [name, value] : *annotation) merged.set(name, value);
        record = std::move(merged).build();
    }
    if (record == before && saved_ && saved_ == file::stampOf(annotationsURL_)) return;
    annotations_.store(annotations().changing(annotationKey, std::move(record)));
    if (const auto error = saveDb()) {
        logging::notice(
            text::format("unable to save annotations:{} error:{}", annotationsURL_, error->localizedDescription()));
    }
}

void VTDAnnotationStore::setAnnotation(const std::optional<value::Dictionary>& annotation, const VTDPlugIn& plugIn) {
    setAnnotation(annotation, plugIn.annotationKey());
}
