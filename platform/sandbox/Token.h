#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/file/Identity.h"

namespace sandbox {

inline constexpr std::size_t kLongestToken = 4096;  // 1023 bytes of path, all encoded, and 160 of the rest

// What a token grants: reading the file or directory that has this identity and lies at this canonical path.
struct Extension {
    std::string path;
    file::Identity identity;
    friend bool operator==(const Extension&, const Extension&) = default;
};

// A token is text:
//
//   token := class ";" device ":" inode ":" birth ":" generation ";" path ";" mac
//
// the four numbers in lower-case hexadecimal (a birth before 1970 as its 64 bits are), the path with everything
// percent-encoded but letters, digits and "/._-", the mac as 32 lower-case hexadecimal digits of the CMAC (AES-128)
// over all that stands before its ";". The key is made when this process first needs it and kept nowhere else. Equal
// extensions have equal tokens. Any thread.
std::string seal(const Extension& extension);

// What a token grants, or nothing when this process did not issue it as it stands. Takes the same time wherever a
// forged MAC is wrong; nothing before the MAC is looked at unless it is right.
std::optional<Extension> unseal(std::string_view token);

}  // namespace sandbox
