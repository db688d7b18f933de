#include "platform/dravo/store/Images.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/dravo/store/WriteAll.h"
#include "platform/file/File.h"
#include "platform/logging/Invariant.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

// The file is a header and entries, one behind the other, each of a header and an image, padded to 16 bytes. A
// generation is one such file: compacting writes another and puts it in the place of the first. It has a name, and so
// anybody with the right to may cut or overwrite it at any time; therefore it is only ever read, and what is read is
// held against its checksum. What is found sound goes into the working copy, and is used where that is mapped.
//
// A place is a working copy's number (never 0) and an offset in units of 16 bytes. The copy is not compacted: once it
// is mostly of what is gone another one is begun, and fills again with what is asked for.

namespace dravo {

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30;  // of the file
constexpr std::size_t kWorthCompacting = std::size_t{1} << 20;
constexpr std::chrono::minutes kCompactAgain{10};  // after a failure
constexpr std::size_t kUnit = 16;
constexpr char kNewSuffix[] = ".new";
constexpr char kWorkingSuffix[] = ".used";
constexpr std::uint64_t kFileMagic = 0x3130'6567'616d'4956;  // "VImage01"
constexpr std::uint32_t kEntryMagic = 0x79'72'74'6e;         // "ntry"

struct FileHeader {
    std::uint64_t magic = kFileMagic;
    digest::Fingerprint program;  // that has written it: images are of its own making, and of no other's
    std::uint64_t checksum = 0;   // of what stands before
};
static_assert(sizeof(FileHeader) % kUnit == 0);

struct EntryHeader {
    std::uint32_t magic = kEntryMagic;
    std::uint32_t size = 0;  // of the image
    value::Uuid::Bytes uuid;
    digest::Fingerprint madeOf;
    std::uint64_t imageChecksum = 0;
    std::uint64_t unused = 0;
    std::uint64_t checksum = 0;  // of what stands before
};
static_assert(sizeof(EntryHeader) % kUnit == 0);

template <typename Header>
std::uint64_t checksumOf(const Header& header) {
    static_assert(std::is_trivially_copyable_v<Header> && std::has_unique_object_representations_v<Header>);
    return digest::checksum(std::as_bytes(std::span{&header, 1}).first(offsetof(Header, checksum)));
}

std::size_t padded(std::size_t size) {
    return (size + kUnit - 1) / kUnit * kUnit;
}

// Which program this is: another build may make other images of the same plug-ins.
digest::Fingerprint thisProgram() {
    struct stat status {};
    if (::stat("/proc/self/exe", &status) != 0) return {};
    const std::int64_t facts[] = {static_cast<std::int64_t>(status.st_dev), static_cast<std::int64_t>(status.st_ino),
                                  status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
    return digest::fingerprint(std::as_bytes(std::span{facts}));
}

}  // namespace

class Images::Generation {
public:
    explicit Generation(file::UniqueFd file) : file_{std::move(file)} {}

    std::size_t live() const { return live_; }
    std::size_t size() const { return size_; }

    std::optional<std::uint64_t> find(const value::Uuid& uuid) const {
        const auto found = places_.find(uuid);
        return found != places_.end() ? std::optional{found->second.offset} : std::nullopt;
    }
    void forget(const value::Uuid& uuid) {
        const auto found = places_.find(uuid);
        if (found == places_.end()) return;
        INVARIANT(live_ >= found->second.size && found->second.offset < size_);
        live_ -= found->second.size;
        places_.erase(found);
    }
    template <typename Condition>
    void forgetIf(const Condition& condition) {
        std::erase_if(places_, [&](const auto& place) {
            if (!condition(place.first)) return false;
            live_ -= place.second.size;
            return true;
        });
    }
    template <typename Visit>
    void forEach(const Visit& visit) const {
        for (const auto& [uuid, entry] : places_) visit(entry.offset);
    }

    // Starts an empty file, whatever it held; an error number.
    int begin() {
        places_.clear();
        live_ = 0;
        FileHeader header;
        header.program = thisProgram();
        header.checksum = checksumOf(header);
        if (::ftruncate(file_.get(), 0) != 0) return errno;
        size_ = sizeof header;
        return writeAll(file_.get(), std::as_bytes(std::span{&header, 1}), 0);
    }

    // Finds what is in the file. False when it is not one of this program's; what follows damage is cut off.
    bool read() {
        struct stat status {};
        if (::fstat(file_.get(), &status) != 0 || status.st_size < ssize_t{sizeof(FileHeader)}) return false;
        const auto end = std::min(static_cast<std::size_t>(status.st_size), kMostBytes);
        FileHeader header;
        if (!readAll(std::as_writable_bytes(std::span{&header, 1}), 0) || header.magic != kFileMagic ||
            header.checksum != checksumOf(header) || header.program != thisProgram()) {
            return false;
        }
        size_ = sizeof header;
        while (end - size_ >= sizeof(EntryHeader)) {
            EntryHeader entry;
            const std::size_t left = end - size_ - sizeof entry;
            if (!readAll(std::as_writable_bytes(std::span{&entry, 1}), size_) || entry.magic != kEntryMagic ||
                entry.checksum != checksumOf(entry) || padded(entry.size) > left)
                break;
            note(value::Uuid{entry.uuid}, size_, entry.size);
            size_ += sizeof entry + padded(entry.size);
        }
        if (size_ == static_cast<std::size_t>(status.st_size)) return true;
        logging::notice(
            text::format("{} bytes of the images of plug-ins are damaged or were never completed; they are "
                         "made again",
                         static_cast<std::size_t>(status.st_size) - size_));
        return ::ftruncate(file_.get(), static_cast<off_t>(size_)) == 0;
    }

    // What the file holds there, when the checksums are right; nothing otherwise.
    struct Kept {
        EntryHeader header;
        std::vector<std::byte> image;
    };
    std::optional<Kept> readEntry(std::uint64_t offset) const {
        Kept kept;
        if (!readAll(std::as_writable_bytes(std::span{&kept.header, 1}), offset) ||
            kept.header.checksum != checksumOf(kept.header))
            return {};
        kept.image.resize(kept.header.size);
        if (!readAll(kept.image, offset + sizeof kept.header)) return {};
        return digest::checksum(kept.image) == kept.header.imageChecksum ? std::optional{std::move(kept)}
                                                                         : std::nullopt;
    }

    // The offset, or nothing with errno set; then nothing has changed.
    std::optional<std::uint64_t> append(const value::Uuid& uuid, const digest::Fingerprint& madeOf,
                                        std::span<const std::byte> image) {
        if (image.size() > kMostBytes - size_ || sizeof(EntryHeader) + padded(image.size()) > kMostBytes - size_) {
            errno = EFBIG;
            return {};
        }
        EntryHeader header;
        header.size = static_cast<std::uint32_t>(image.size());
        header.uuid = uuid.bytes();
        header.madeOf = madeOf;
        header.imageChecksum = digest::checksum(image);
        header.checksum = checksumOf(header);
        const auto headerBytes = std::as_bytes(std::span{&header, 1});
        std::vector<std::byte> entry{headerBytes.begin(), headerBytes.end()};
        entry.insert(entry.end(), image.begin(), image.end());
        entry.resize(sizeof header + padded(image.size()));
        const std::uint64_t offset = size_;
        INVARIANT(offset % kUnit == 0 && live_ <= size_);
        if (const int error = writeAll(file_.get(), entry, offset); error != 0) {
            static_cast<void>(::ftruncate(file_.get(), static_cast<off_t>(offset)));
            errno = error;
            return {};
        }
        size_ += entry.size();
        note(uuid, offset, image.size());
        return offset;
    }

private:
    struct Entry {
        std::uint64_t offset;
        std::size_t size;  // with its header, in the file
    };

    bool readAll(std::span<std::byte> bytes, std::uint64_t offset) const {
        while (!bytes.empty()) {
            const ssize_t got = ::pread(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) return false;
            bytes = bytes.subspan(static_cast<std::size_t>(got));
            offset += static_cast<std::uint64_t>(got);
        }
        return true;
    }

    void note(const value::Uuid& uuid, std::uint64_t offset, std::size_t imageSize) {
        forget(uuid);
        const Entry entry{offset, sizeof(EntryHeader) + padded(imageSize)};
        places_.emplace(uuid, entry);
        live_ += entry.size;
    }

    const file::UniqueFd file_;

    // Under the mutex of the images.
    std::size_t size_ = 0;  // of the file
    std::size_t live_ = 0;  // of what is found in it
    std::unordered_map<value::Uuid, Entry> places_;
};

namespace {

constexpr unsigned kOffsetBits = 40;

std::uint64_t placeOf(std::uint64_t number, std::uint64_t offset) {
    INVARIANT(offset % WorkingCopy::kUnit == 0 && offset / WorkingCopy::kUnit < std::uint64_t{1} << kOffsetBits);
    return number << kOffsetBits | offset / WorkingCopy::kUnit;
}

}  // namespace

Images::Images(std::string path) : path_{std::move(path)} {
    ::unlink((path_ + kNewSuffix).c_str());  // of a run that was killed
    file::UniqueFd file{
        ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR)};
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        giveUp("open", errno);
    } else if (!S_ISREG(status.st_mode)) {
        giveUp("open", EINVAL);
    } else if (working_ = WorkingCopy::make(path_ + kWorkingSuffix); !working_) {
        giveUp("map a copy of", errno);
    } else if (generation_ = std::make_shared<Generation>(std::move(file)); !generation_->read()) {
        if (status.st_size != 0) {
            logging::notice("the images of plug-ins are another program's, or damaged; they are made again");
        }
        if (const int error = generation_->begin(); error != 0) giveUp("write", error);
    }
}

Images::~Images() = default;

void Images::giveUp(const char* what, int error) {
    logging::warning(text::format("cannot {} {}: {}; what is worked out of plug-ins is not kept", what, path_,
                                  std::strerror(error)));
    generation_.reset();
}

std::shared_ptr<WorkingCopy> Images::workingCopy() const {
    const std::lock_guard lock{mutex_};
    return working_;
}

// Under the mutex. Nothing, with errno set, when there is no room.
std::optional<DVImage> Images::copyOf(std::span<const std::byte> image, Place& place) {
    if (working_->size() > 2 * std::max(generation_->live(), kWorthCompacting)) {
        auto another = WorkingCopy::make(path_ + kWorkingSuffix);
        if (another) working_ = std::move(another);
    }
    const auto offset = working_->append(image);
    if (!offset) return {};
    place.store(placeOf(working_->number(), *offset), std::memory_order_release);
    return DVImage{working_->at(*offset), working_};
}

// Under the mutex.
void Images::complainOnce(const std::string& what) {
    if (!std::exchange(complained_, true)) logging::warning(what);
}

std::optional<DVImage> Images::at(const Place& place) const {
    const std::uint64_t known = place.load(std::memory_order_acquire);
    if (known == 0) return {};
    auto working = workingCopy();
    if (!working || known >> kOffsetBits != working->number()) return {};
    const auto offset = (known & ((std::uint64_t{1} << kOffsetBits) - 1)) * WorkingCopy::kUnit;
    const auto bytes = working->at(offset);
    return DVImage{bytes, std::move(working)};
}

std::optional<DVImage> Images::find(const Key& key, Place& place, DVImage::IsSound isSound) {
    std::shared_ptr<Generation> generation;
    std::optional<std::uint64_t> offset;
    {
        const std::lock_guard lock{mutex_};
        generation = generation_;
        if (generation) offset = generation->find(key.uuid);
    }
    if (!offset) return {};
    const auto kept = generation->readEntry(*offset);
    if (kept && kept->header.madeOf != key.madeOf) return {};
    const std::lock_guard lock{mutex_};
    if (!kept || kept->header.uuid != key.uuid.bytes() || !isSound(kept->image)) {
        complainOnce("an image of a plug-in is damaged; it is made again (others will not be logged)");
        generation->forget(key.uuid);
        return {};
    }
    return generation_ ? copyOf(kept->image, place) : std::nullopt;
}

void Images::keep(const Key& key, std::span<const std::byte> image, Place& place) {
    const std::lock_guard lock{mutex_};
    if (!generation_) return;
    if (generation_->append(key.uuid, key.madeOf, image) && copyOf(image, place)) return;
    complainOnce(text::format("cannot write {}: {}; plug-ins will be slower to discover", path_, std::strerror(errno)));
}

void Images::forgetOthers(const IsInstalled& isInstalled) {
    const std::lock_guard lock{mutex_};
    if (generation_) generation_->forgetIf([&](const value::Uuid& uuid) { return !isInstalled(uuid); });
}

bool Images::isWorthCompacting() const {
    const std::lock_guard lock{mutex_};
    if (!generation_ || std::chrono::steady_clock::now() < notBefore_) return false;
    const std::size_t live = generation_->live();
    return generation_->size() - live > std::max(live, kWorthCompacting);
}

void Images::compact() {
    std::shared_ptr<Generation> before;
    std::vector<std::uint64_t> wanted;
    std::size_t end = 0;
    {
        const std::lock_guard lock{mutex_};
        if (!generation_) return;
        before = generation_;
        end = before->size();
        before->forEach([&](std::uint64_t offset) { wanted.push_back(offset); });
    }

    const std::string temporary = path_ + kNewSuffix;
    ::unlink(temporary.c_str());
    const auto after = std::make_shared<Generation>(file::UniqueFd{
        ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR)});
    bool isDone = after->begin() == 0;
    // What is damaged is left out.
    const auto copy = [&](std::uint64_t offset) {
        const auto kept = isDone ? before->readEntry(offset) : std::nullopt;
        if (kept) isDone = after->append(value::Uuid{kept->header.uuid}, kept->header.madeOf, kept->image).has_value();
    };
    for (const std::uint64_t offset : wanted) copy(offset);

    const std::lock_guard lock{mutex_};
    // What was kept meanwhile comes along, and what was forgotten is forgotten.
    if (isDone) after->forgetIf([&](const value::Uuid& uuid) { return !before->find(uuid); });
    before->forEach([&](std::uint64_t offset) {
        if (offset >= end) copy(offset);
    });
    if (isDone && ::rename(temporary.c_str(), path_.c_str()) == 0) {
        generation_ = after;
        return;
    }
    ::unlink(temporary.c_str());  // the old one serves on
    notBefore_ = std::chrono::steady_clock::now() + kCompactAgain;
}

}  // namespace dravo
