#include "platform/dravo/store/WorkingCopy.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/dravo/store/WriteAll.h"
#include "platform/logging/Invariant.h"

// An image is preceded by its size and padded. The file is mapped once, as far as it may ever grow, so that what is
// appended is there without another mapping and nothing that was handed out ever moves.
namespace dravo {

namespace {

constexpr std::size_t kMostBytes = std::size_t{1} << 30;

std::atomic<std::uint64_t> lastNumber{0};

}  // namespace

std::shared_ptr<WorkingCopy> WorkingCopy::make(const std::string& path) {
    ::unlink(path.c_str());  // of a run that was killed in between
    file::UniqueFd file{::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR)};
    if (!file || ::unlink(path.c_str()) != 0) return nullptr;
    void* const base = ::mmap(nullptr, kMostBytes, PROT_READ, MAP_SHARED | MAP_NORESERVE, file.get(), 0);
    if (base == MAP_FAILED) return nullptr;
    return std::shared_ptr<WorkingCopy>{new WorkingCopy{std::move(file), static_cast<const std::byte*>(base)}};
}

WorkingCopy::WorkingCopy(file::UniqueFd file, const std::byte* base)
    : file_{std::move(file)}, base_{base}, number_{++lastNumber} {}

WorkingCopy::~WorkingCopy() {
    ::munmap(const_cast<std::byte*>(base_), kMostBytes);
}

std::optional<std::uint64_t> WorkingCopy::append(std::span<const std::byte> image) {
    const auto size = static_cast<std::uint32_t>(image.size());
    if (image.size() > kMostBytes - size_ || image.size() + 2 * kUnit > kMostBytes - size_) {
        errno = EFBIG;
        return {};
    }
    std::vector<std::byte> entry(kUnit + (image.size() + kUnit - 1) / kUnit * kUnit);
    std::memcpy(entry.data(), &size, sizeof size);
    std::copy(image.begin(), image.end(), entry.begin() + kUnit);
    const std::uint64_t offset = size_;
    INVARIANT(offset % kUnit == 0);
    if (const int error = writeAll(file_.get(), entry, offset); error != 0) {
        static_cast<void>(::ftruncate(file_.get(), static_cast<off_t>(offset)));
        errno = error;
        return {};
    }
    size_ += entry.size();
    return offset;
}

std::span<const std::byte> WorkingCopy::at(std::uint64_t offset) const {
    std::uint32_t size = 0;
    std::memcpy(&size, base_ + offset, sizeof size);
    return {base_ + offset + kUnit, size};
}

}  // namespace dravo
