#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/file/UniqueFd.h"

namespace dravo {

// The images that this process uses, mapped, in a file that nobody else can reach: it has no name. So what was found
// sound stays as it was, whoever cuts, overwrites or deletes the file that it came from; and it is the disk's, not the
// process's own memory.
//
// append() is for one thread at a time; at() is for any thread, of what was appended before it learned of the offset.
class WorkingCopy {
public:
    static constexpr std::size_t kUnit = 16;  // of offsets, bytes

    // In the path's directory; the name is used for the moment of making it. Null, with errno set, when it cannot be
    // had.
    static std::shared_ptr<WorkingCopy> make(const std::string& path);
    ~WorkingCopy();
    WorkingCopy(const WorkingCopy&) = delete;
    WorkingCopy& operator=(const WorkingCopy&) = delete;

    // Tells copies of one process apart; never 0.
    std::uint64_t number() const { return number_; }

    // The image's offset, or nothing with errno set; then nothing has changed.
    std::optional<std::uint64_t> append(std::span<const std::byte> image);

    // What was appended there. Valid as long as the copy.
    std::span<const std::byte> at(std::uint64_t offset) const;

    std::size_t size() const { return size_; }  // bytes

private:
    WorkingCopy(file::UniqueFd file, const std::byte* base);

    const file::UniqueFd file_;
    const std::byte* const base_;
    const std::uint64_t number_;
    std::size_t size_ = 0;
};

}  // namespace dravo
