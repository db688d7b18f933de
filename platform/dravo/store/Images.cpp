#include "platform/dravo/store/Images.h"

#include <fcntl.h>
#include <sys/mman.h>
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

#include "platform/file/File.h"
#include "platform/logging/Invariant.h"
#include "platform/logging/Log.h"
#include "platform/text/Format.h"

// The file is a header and entries, one behind the other, each of a header and an image, padded to 16 bytes. It is
// mapped once, as far as it may ever grow, so that what is appended is there without another mapping and nothing that
// was handed out ever moves. A generation is one such file: compacting writes another and puts it in the place of the
// first, which stays mapped for as long as somebody reads it.
//
// A place is a generation's number (never 0) and an offset in units of 16 bytes.

namespace dravo {

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30;  // of the file
constexpr std::size_t kWorthCompacting = std::size_t{1} << 20;
constexpr std::chrono::minutes kCompactAgain{10};  // after a failure
constexpr std::size_t kUnit = 16;
constexpr char kNewSuffix[] = ".new";
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

// All of it, or an error number.
int writeAll(int fd, std::span<const std::byte> bytes, std::uint64_t offset) {
    while (!bytes.empty()) {
        const ssize_t written = ::pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return errno;
        bytes = bytes.subspan(static_cast<std::size_t>(written));
        offset += static_cast<std::uint64_t>(written);
    }
    return 0;
}

std::atomic<std::uint64_t> lastNumber{0};

}  // namespace

class Images::Generation {
public:
    // Null, with errno set, when it cannot be had.
    static std::shared_ptr<Generation> of(file::UniqueFd file) {
        void* const base = ::mmap(nullptr, kMostBytes, PROT_READ, MAP_SHARED | MAP_NORESERVE, file.get(), 0);
        if (base == MAP_FAILED) return nullptr;
        return std::shared_ptr<Generation>{new Generation{std::move(file), static_cast<const std::byte*>(base)}};
    }
    ~Generation() { ::munmap(const_cast<std::byte*>(base_), kMostBytes); }
    Generation(const Generation&) = delete;
    Generation& operator=(const Generation&) = delete;

    std::uint64_t number() const { return number_; }
    const std::byte* base() const { return base_; }
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

    EntryHeader headerAt(std::uint64_t offset) const {
        EntryHeader header;
        std::memcpy(&header, base_ + offset, sizeof header);
        return header;
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

    // Finds what is in the file. False when it is not one of this program's; what follows damage is cut off. It is
    // read, and not looked at where it is mapped: what a disk does not give is an error here, and a signal there.
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

    // The image's bytes, read from the file when its checksum is right; nothing otherwise.
    std::optional<std::vector<std::byte>> readImage(std::uint64_t offset) const {
        EntryHeader header;
        if (!readAll(std::as_writable_bytes(std::span{&header, 1}), offset)) return {};
        std::vector<std::byte> image(header.size);
        if (!readAll(image, offset + sizeof header) || digest::checksum(image) != header.imageChecksum) return {};
        return image;
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

    std::span<const std::byte> imageAt(std::uint64_t offset) const {
        std::uint32_t size = 0;
        std::memcpy(&size, base_ + offset + offsetof(EntryHeader, size), sizeof size);
        return {base_ + offset + sizeof(EntryHeader), size};
    }

private:
    Generation(file::UniqueFd file, const std::byte* base) : file_{std::move(file)}, base_{base} {}

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
    const std::byte* const base_;
    const std::uint64_t number_ = ++lastNumber;

    // Under the mutex of the images.
    std::size_t size_ = 0;  // of the file
    std::size_t live_ = 0;  // of what is found in it
    std::unordered_map<value::Uuid, Entry> places_;
};

namespace {

constexpr unsigned kOffsetBits = 40;

std::uint64_t placeOf(std::uint64_t number, std::uint64_t offset) {
    INVARIANT(offset % kUnit == 0 && offset / kUnit < std::uint64_t{1} << kOffsetBits);
    return number << kOffsetBits | offset / kUnit;
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
    } else if (generation_ = Generation::of(std::move(file)); !generation_) {
        giveUp("map", errno);
    } else if (!generation_->read()) {
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

std::shared_ptr<Images::Generation> Images::current() const {
    const std::lock_guard lock{mutex_};
    return generation_;
}

std::optional<DVImage> Images::at(const Place& place) const {
    const std::uint64_t known = place.load(std::memory_order_acquire);
    if (known == 0) return {};
    auto generation = current();
    if (!generation || known >> kOffsetBits != generation->number()) return {};
    const auto offset = (known & ((std::uint64_t{1} << kOffsetBits) - 1)) * kUnit;
    const auto bytes = generation->imageAt(offset);
    return DVImage{bytes, std::move(generation)};
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
    // Read before it is believed where it is mapped. Nobody changes what is in the file.
    const auto image = generation->readImage(*offset);
    if (image && generation->headerAt(*offset).madeOf != key.madeOf) return {};
    if (!image || !isSound(*image)) {
        const std::lock_guard lock{mutex_};
        if (!std::exchange(complained_, true)) {
            logging::notice("an image of a plug-in is damaged; it is made again (others will not be logged)");
        }
        generation->forget(key.uuid);
        return {};
    }
    place.store(placeOf(generation->number(), *offset), std::memory_order_release);
    const auto bytes = generation->imageAt(*offset);
    return DVImage{bytes, std::move(generation)};
}

void Images::keep(const Key& key, std::span<const std::byte> image, Place& place) {
    const std::lock_guard lock{mutex_};
    if (!generation_) return;
    const auto offset = generation_->append(key.uuid, key.madeOf, image);
    if (offset) return place.store(placeOf(generation_->number(), *offset), std::memory_order_release);
    if (!std::exchange(complained_, true)) {
        logging::warning(
            text::format("cannot write {}: {}; plug-ins will be slower to discover", path_, std::strerror(errno)));
    }
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
    const auto after = Generation::of(file::UniqueFd{
        ::open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR)});
    bool isDone = after && after->begin() == 0;
    // What is damaged is left out.
    const auto copy = [&](std::uint64_t offset) {
        const auto image = isDone ? before->readImage(offset) : std::nullopt;
        if (!image) return;
        const EntryHeader header = before->headerAt(offset);
        isDone = after->append(value::Uuid{header.uuid}, header.madeOf, *image).has_value();
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
