#include "vtd/VTDAnnotationStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <numeric>
#include <string_view>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTProtocol.h"
#include "platform/effort/Effort.h"
#include "platform/file/File.h"
#include "platform/logging/Invariant.h"
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

// What a save costs beside its bytes: a new file, and the disk told of it twice.
constexpr std::uint64_t kSaveEffort = 500 * effort::kUnitsAMicrosecond;

// How many containers a record lies in.
constexpr std::size_t kRecordDepth = 2;

value::Dictionary rootOf(value::Dictionary table) {
    return {{kVersionKey, VTDAnnotationStore::kVersion}, {kDataKey, std::move(table)}};
}

bool isMissingFile(const value::Error& error) {
    return error.domain == "posix" && error.code == ENOENT;
}

bool isHeldLock(const value::Error& error) {
    return error.domain == "posix" && error.code == EWOULDBLOCK;
}

// The record without the annotations that no property list can hold.
value::Dictionary writablePart(const value::Dictionary& record) {
    value::Dictionary::Builder writable;
    for (const auto& [name, annotation] : record) {
        const bool isWritable =
            plist::writeXmlKey(name, kRecordDepth + 1).ok() && VTDAnnotationStore::isStorable(annotation);
        if (isWritable) writable.set(name, annotation);
    }
    return std::move(writable).build();
}

// Whether both have the same text; false where that would have to be found out by comparing much.
bool isAlike(const value::Value& a, const value::Value& b) {
    if (a.kind() != b.kind()) return false;
    return a.dictionary() != nullptr ? a.dictionary()->isSameObject(*b.dictionary()) : a.isNumber() && a == b;
}
bool isAlike(const value::Dictionary& a, const value::Dictionary& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& one, const auto& other) {
        return one.key == other.key && isAlike(one.value, other.value);
    });
}

// The record with the annotation's names set.
value::Dictionary merged(const std::optional<value::Dictionary>& record, const value::Dictionary& annotation) {
    value::Dictionary::Builder names{record.value_or(value::Dictionary{})};
    for (const auto& [name, value] : annotation) names.set(name, value);
    return std::move(names).build();
}

// What is there and is no file (a device, a pipe, a directory), or no name for one. Whoever names such a thing is told
// at once.
std::optional<value::Error> refuseUnlessFile(const std::string& path) {
    struct stat status {};
    if (const auto target = file::finalPath(path); !target && target.error().code == EISDIR) {
        return VTErrorWithFormat(VTErrorConfiguration, "annotations cannot be kept in \"{}\": it names no file", path);
    }
    const bool isFile = ::stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode);
    if (isFile) return {};
    return VTErrorWithFormat(VTErrorConfiguration, "annotations cannot be kept in {}: it is no regular file", path);
}

// Whether the second holds what the first does: it is the same file, or a copy.
bool isKeptAs(const std::string& path, const std::string& kept) {
    const auto one = file::stampOf(path), other = file::stampOf(kept);
    if (!one || !other || one->size != other->size) return false;
    if (file::isSameFile(*one, *other)) return true;
    const auto held = file::readRegular(path, kLimits.bytes), copy = file::readRegular(kept, kLimits.bytes);
    return held && copy && held->bytes == copy->bytes;
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
    if (auto error = refuseUnlessFile(store->annotationsURL_)) return *std::move(error);
    if (auto error = store->takeLock()) {
        if (isHeldLock(*error)) return *std::move(error);
        // Where no lock can be made nothing can be saved either, by anybody like us. What can be read holds until the
        // first save, which tries again and then reads again.
        store->loadOrReset();
    }
    return store;
}

void VTDAnnotationStore::loadOrReset() {
    if (const auto error = loadDb(); error && !isMissingFile(*error)) {
        logging::notice(text::format("unable to load annotation database:{} error:{} (resetting)", annotationsURL_,
                                     error->localizedDescription()));
        fileHoldsMore_ = true;
    }
}

std::string VTDAnnotationStore::defaultDatabaseURL() {
    constexpr std::size_t kLongest = 1024;
    const std::string& state = paths::directories().state;
    if (state.empty() || state.size() >= kLongest) {
        logging::internalInconsistency(text::format("unable to locate user directory: errno {}", ENAMETOOLONG), kUnit);
    }
    const std::string directory = state + "/halvern.velto/";
    if (const auto error = file::makeDirectories(directory, 0700, file::Durability::synced)) {
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
    Table table;
    std::size_t size = 0;
    fileHoldsMore_ = root.size() != 2;
    const value::Dictionary* const records = root.dictionary(kDataKey);
    if (records == nullptr) fileHoldsMore_ = true;
    for (const auto& [annotationKey, content] : records != nullptr ? *records : value::Dictionary{}) {
        if (content.dictionary() == nullptr) {
            fileHoldsMore_ = true;
            continue;
        }
        Record record = recordOf(annotationKey, *content.dictionary());
        if (record.leftOut) fileHoldsMore_ = true;
        size += record.size();
        table.emplace_hint(table.end(), annotationKey, std::move(record));
    }
    latest_.reset();
    if (fileHoldsMore_) {
        logging::notice(text::format("ignoring what is no annotation in {}", annotationsURL_));
    }
    const std::lock_guard lock{mutex_};
    table_.swap(table);
    size_ = size;
    return {};
}

// --- Saving

void VTDAnnotationStore::save() {
    latest_.reset();
    isUnsaved_.store(false, std::memory_order_release);
    if (!isChanged_ && saved_ && saved_ == file::stampOf(annotationsURL_)) return unsaved_.clear();
    if (const auto error = saveDb()) {
        logging::notice(
            text::format("unable to save annotations:{} error:{}", annotationsURL_, error->localizedDescription()));
    }
}

std::optional<value::Error> VTDAnnotationStore::saveDb() {
    saved_.reset();
    isChanged_ = true;  // until it is saved
    if (auto error = takeLock()) return error;

    // What would not load again must not replace what does.
    if (size_ > kLimits.bytes - kLargestRecord) return value::posixError(EFBIG, annotationsURL_);
    if (auto error = keepReplacedFile()) return error;
    if (auto error = writeFile()) return error;
    isChanged_ = false;
    unsaved_.clear();
    saved_ = file::stampOf(annotationsURL_);
    std::optional<value::Error> leftOut;
    for (auto& [annotationKey, record] : table_) {
        if (!std::exchange(record.isTold, true) && record.leftOut) leftOut = record.leftOut;
    }
    return leftOut;
}

std::optional<value::Error> VTDAnnotationStore::writeFile() const {
    INVARIANT(size_ == std::accumulate(table_.begin(), table_.end(), std::size_t{0},
                                       [](std::size_t sum, const auto& entry) { return sum + entry.second.size(); }));
    static_cast<void>(effort::take(kSaveEffort + effort::ofBytes(size_)));
    // The text of an empty table, and where in it the records belong.
    constexpr std::string_view kNoRecords = "\t<dict/>\n";
    const auto frame = plist::writeXml(rootOf({}));
    if (!frame) return frame.error();
    const std::string_view text = *frame;
    const std::size_t at = text.find(kNoRecords);
    return file::writeAtomically(annotationsURL_, [&](const file::Take& take) {
        if (table_.empty()) return take(text);
        take(text.substr(0, at));
        take("\t<dict>\n");
        for (const auto& [annotationKey, record] : table_) {
            if (record.keyLine.empty()) continue;
            take(record.keyLine);
            take(*record.lines);
        }
        take("\t</dict>\n");
        take(text.substr(at + kNoRecords.size()));
    });
}

std::optional<value::Error> VTDAnnotationStore::takeLock() {
    const auto target = file::finalPath(annotationsURL_);
    if (!target) return target.error();
    const std::string path = *target + ".lock";
    if (lock_ && lock_->isAt(path)) return {};
    auto lock = lock::LockFile::take(path);
    if (!lock) return lock.error();
    lock_.emplace(*std::move(lock));

    file::removeLeftovers(annotationsURL_);
    loadOrReset();
    for (const auto& [annotationKey, annotation] : unsaved_) {
        if (const auto refused = merge(annotation, annotationKey)) {
            logging::notice(text::format("leaving out what was set before {} could be read: {}", annotationsURL_,
                                         refused->localizedDescription()));
        }
    }
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
        if (isKeptAs(*replaced, kept)) {  // by an earlier run, whose save then failed
            error.reset();
            break;
        }
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

// --- The table

std::optional<value::Dictionary> VTDAnnotationStore::annotationForIdentifier(const std::string& annotationKey) const {
    const std::lock_guard lock{mutex_};
    const auto found = table_.find(annotationKey);
    return found != table_.end() ? std::optional{found->second.content} : std::nullopt;
}

std::optional<value::Dictionary> VTDAnnotationStore::annotationForPlugIn(const VTDPlugIn& plugIn) const {
    return annotationForIdentifier(plugIn.annotationKey());
}

value::Dictionary VTDAnnotationStore::annotations() const {
    value::Dictionary::Builder records;
    const std::lock_guard lock{mutex_};
    for (const auto& [annotationKey, record] : table_) records.set(annotationKey, record.content);
    return std::move(records).build();
}

bool VTDAnnotationStore::isStorable(const value::Value& annotation) {
    return plist::writeXmlLines(annotation, kRecordDepth + 1).ok();
}

std::optional<value::Error> VTDAnnotationStore::setAnnotation(const Annotation& annotation,
                                                              const std::string& annotationKey) {
    if (auto refused = merge(annotation, annotationKey)) return refused;
    Annotation& unsaved = unsaved_[annotationKey];
    unsaved = annotation ? std::optional{merged(unsaved, *annotation)} : std::nullopt;
    isUnsaved_.store(true, std::memory_order_release);
    return {};
}

void VTDAnnotationStore::putBack(const Annotation& record, const std::string& annotationKey) {
    if (record) {
        replace(annotationKey, recordOf(annotationKey, *record));
        unsaved_[annotationKey] = record;
    } else {
        replace(annotationKey, {});
        unsaved_.erase(annotationKey);
    }
}

std::optional<value::Error> VTDAnnotationStore::merge(const Annotation& annotation, const std::string& annotationKey) {
    const auto found = table_.find(annotationKey);
    const Record* const before = found != table_.end() ? &found->second : nullptr;
    if (!annotation) {
        isChanged_ = isChanged_ || before != nullptr;
        replace(annotationKey, {});
        return {};
    }
    Record record =
        recordOf(annotationKey, merged(before != nullptr ? std::optional{before->content} : std::nullopt, *annotation));
    const std::size_t size = before != nullptr ? before->size() : 0;
    const bool grows = record.size() > size;
    if (grows && record.size() > kLargestRecord) {
        return VTErrorWithFormat(VTErrorRequest, "annotations of a plug-in exceed {} bytes as stored", kLargestRecord);
    }
    if (grows && size_ - size + record.size() > kLargestTable) {
        return VTErrorWithFormat(VTErrorRequest, "annotations exceed {} bytes as stored", kLargestTable);
    }
    // By the text: 1 and true are equal numbers, but not the same choice for who reads the file.
    const bool isSame = before != nullptr && before->leftOut == record.leftOut && *before->lines == *record.lines;
    record.isTold = isSame && before->isTold;
    isChanged_ = isChanged_ || !isSame;
    replace(annotationKey, std::move(record));
    return {};
}

VTDAnnotationStore::Record VTDAnnotationStore::recordOf(const std::string& annotationKey, value::Dictionary content) {
    Record record;
    record.content = std::move(content);
    if (latest_ && isAlike(latest_->content, record.content)) {
        record.lines = latest_->lines;
    } else {
        auto lines = plist::writeXmlLines(record.content, kRecordDepth);
        if (!lines) {
            record.leftOut = lines.error();
            lines = plist::writeXmlLines(writablePart(record.content), kRecordDepth);
        }
        record.lines = std::make_shared<const std::string>(lines ? *std::move(lines) : std::string{});
        if (!record.leftOut) latest_ = record;
    }
    auto keyLine = plist::writeXmlKey(annotationKey, kRecordDepth);
    if (keyLine) {
        record.keyLine = *std::move(keyLine);
    } else {
        record.leftOut = keyLine.error();
    }
    return record;
}

void VTDAnnotationStore::replace(const std::string& annotationKey, std::optional<Record> record) {
    const auto found = table_.find(annotationKey);
    INVARIANT(found == table_.end() || size_ >= found->second.size());
    if (found != table_.end()) size_ -= found->second.size();
    if (record) size_ += record->size();
    const std::lock_guard lock{mutex_};
    if (record && found != table_.end()) {
        std::swap(found->second, *record);
    } else if (record) {
        table_.emplace(annotationKey, *std::move(record));
    } else if (found != table_.end()) {
        table_.erase(found);
    }
}
