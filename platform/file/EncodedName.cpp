#include <array>
#include <cstdint>

#include <nettle/sha2.h>

#include "platform/file/File.h"
#include "platform/text/Format.h"
#include "platform/text/Utf8.h"

namespace file {

namespace {

constexpr std::size_t kLongestCharacter = 4;

// Neither is what an escape looks like: "%" and two upper-case hexadecimal digits.
constexpr char kEmptyName[] = "%empty";
constexpr std::string_view kHashMark = "%~";

// The length of the UTF-8 character at the start, 0 when there is none.
std::size_t characterLength(std::string_view text) {
    for (std::size_t length = 1; length <= kLongestCharacter && length <= text.size(); ++length) {
        if (text::isUtf8(text.substr(0, length))) return length;
    }
    return 0;
}

bool mustBeEscaped(char c, bool leading) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F || c == '/' || c == '@' || c == '%' || (leading && c == '.');
}

std::string hashOf(std::string_view text) {
    sha256_ctx context;
    ::sha256_init(&context);
    ::sha256_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
    std::array<std::uint8_t, SHA256_DIGEST_SIZE> digest;
    ::sha256_digest(&context, digest.size(), digest.data());
    std::string hex;
    for (const std::uint8_t byte : digest) hex += text::format("{:02x}", byte);
    return hex;
}

}  // namespace

std::string encodedName(std::string_view text, std::size_t longest) {
    const std::size_t longestBeforeHash = longest - kHashMark.size() - std::size_t{2} * SHA256_DIGEST_SIZE;
    if (text.empty()) return kEmptyName;
    std::string name;
    std::size_t cut = 0;  // the last end of a whole character or escape that leaves room for the hash
    bool leading = true;
    for (std::size_t at = 0; at < text.size() && name.size() <= longest;) {
        const std::size_t length = characterLength(text.substr(at));
        leading = leading && text[at] == '.';
        if (length == 0 || mustBeEscaped(text[at], leading)) {
            name += text::format("%{:02X}", static_cast<unsigned char>(text[at]));
            at += 1;
        } else {
            name += text.substr(at, length);
            at += length;
        }
        if (name.size() <= longestBeforeHash) cut = name.size();
    }
    if (name.size() <= longest) return name;
    name.resize(cut);
    return name.append(kHashMark).append(hashOf(text));
}

}  // namespace file
