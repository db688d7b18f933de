#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/file/UniqueFd.h"
#include "platform/sandbox/Token.h"
#include "platform/value/Error.h"

namespace sandbox {

inline constexpr std::int64_t kRefused = -1;
inline constexpr std::size_t kMostHandles = 4096;

// The extensions that one peer has consumed, by handle. Handles are random, so that one from a connection that broke
// never means another extension of the next. Belongs to the connection's queue.
class Extensions {
public:
    std::int64_t consume(std::string_view token);  // kRefused for a token not issued here, or one too many
    void release(std::int64_t handle);

    std::size_t size() const { return byHandle_.size(); }

    // The one that the handle stands for, alone, for use elsewhere; nothing when there is none.
    std::optional<Extensions> only(std::int64_t handle) const;

    // Opens a regular file for reading: the extension's own path or one beneath it, reached without following a link,
    // while what lies at the extension's path is still what the token was issued for (else ESTALE).
    value::Result<file::UniqueFd> open(std::int64_t handle, const std::string& path) const;

private:
    std::unordered_map<std::int64_t, Extension> byHandle_;
};

}  // namespace sandbox
