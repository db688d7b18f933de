#include "platform/sandbox/Token.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <utility>

#include <nettle/cmac.h>
#include <nettle/memops.h>

#include "platform/logging/Log.h"
#include "platform/sandbox/Sandbox.h"

namespace sandbox {

namespace {

constexpr std::size_t kMacSize = CMAC128_DIGEST_SIZE;

using Mac = std::array<std::uint8_t, kMacSize>;

cmac_aes128_ctx makeKeyedContext() {
    std::array<std::uint8_t, AES128_KEY_SIZE> key{};
    std::size_t have = 0;
    while (have < key.size()) {
        const ssize_t got = getrandom(key.data() + have, key.size() - have, 0);
        if (got > 0) have += static_cast<std::size_t>(got);
        if (got < 0 && errno != EINTR) logging::internalInconsistency("no random bytes for a key", "Token.cpp");
    }
    cmac_aes128_ctx context;
    cmac_aes128_set_key(&context, key.data());
    explicit_bzero(key.data(), key.size());
    return context;
}

Mac macOf(std::string_view text) {
    static const cmac_aes128_ctx keyed = makeKeyedContext();
    cmac_aes128_ctx context = keyed;
    cmac_aes128_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
    Mac mac;
    cmac_aes128_digest(&context, mac.size(), mac.data());
    return mac;
}

constexpr char kDigits[] = "0123456789abcdef";

int valueOf(char digit) {
    if (digit >= '0' && digit <= '9') return digit - '0';
    return digit >= 'a' && digit <= 'f' ? digit - 'a' + 10 : -1;
}

void appendByte(std::string& text, std::uint8_t byte) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
}

// The byte that two digits at the front of the text stand for; -1 when they are none.
int byteAt(std::string_view text) {
    if (text.size() < 2) return -1;
    const int high = valueOf(text[0]);
    const int low = valueOf(text[1]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' || c == '.' ||
           c == '_' || c == '-';
}

void appendHex(std::string& text, std::uint64_t number) {
    char digits[16];
    const auto written = std::to_chars(std::begin(digits), std::end(digits), number, 16);
    text.append(digits, written.ptr);
}

void appendEncoded(std::string& text, std::string_view path) {
    for (const char c : path) {
        if (isPlain(c)) {
            text += c;
        } else {
            text += '%';
            appendByte(text, static_cast<std::uint8_t>(c));
        }
    }
}

std::optional<std::string> decoded(std::string_view text) {
    std::string path;
    path.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path += text[i];
            continue;
        }
        const int byte = byteAt(text.substr(i + 1));
        if (byte < 0) return {};
        path += static_cast<char>(byte);
        i += 2;
    }
    return path;
}

std::optional<Mac> parseMac(std::string_view digits) {
    if (digits.size() != 2 * kMacSize) return {};
    Mac mac;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const int byte = byteAt(digits.substr(2 * i));
        if (byte < 0) return {};
        mac[i] = static_cast<std::uint8_t>(byte);
    }
    return mac;
}

// Takes what stands before the separator, and the separator, off the text.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

std::optional<std::uint64_t> parseNumber(std::string_view digits) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    if (error != std::errc{} || end != digits.data() + digits.size()) return {};
    return number;
}

std::optional<Extension> parse(std::string_view text) {
    if (takeUntil(text, ';') != kReadOnlyFileClass) return {};
    const auto device = parseNumber(takeUntil(text, ':'));
    const auto inode = parseNumber(takeUntil(text, ':'));
    const auto birth = parseNumber(takeUntil(text, ':'));
    const auto generation = parseNumber(takeUntil(text, ';'));
    auto path = decoded(text);
    if (!device || !inode || !birth || !generation || !path) return {};
    return Extension{std::move(*path), {*device, *inode, static_cast<std::int64_t>(*birth), *generation}};
}

}  // namespace

std::string seal(const Extension& extension) {
    const file::Identity& identity = extension.identity;
    constexpr std::size_t kAllButThePath = sizeof kReadOnlyFileClass + std::size_t{4} * 17 + 2 * kMacSize + 1;
    std::string token;
    token.reserve(kAllButThePath + extension.path.size());
    token.append(kReadOnlyFileClass) += ';';
    appendHex(token, identity.device);
    appendHex(token += ':', identity.inode);
    appendHex(token += ':', static_cast<std::uint64_t>(identity.birth));
    appendHex(token += ':', identity.generation);
    appendEncoded(token += ';', extension.path);
    const Mac mac = macOf(token);
    token += ';';
    for (const std::uint8_t byte : mac) appendByte(token, byte);
    return token;
}

std::optional<Extension> unseal(std::string_view token) {
    const std::size_t separator = token.rfind(';');
    if (token.size() > kLongestToken || separator == std::string_view::npos) return {};
    const auto claimed = parseMac(token.substr(separator + 1));
    if (!claimed) return {};
    const std::string_view sealed = token.substr(0, separator);
    const Mac mac = macOf(sealed);
    if (memeql_sec(mac.data(), claimed->data(), mac.size()) == 0) return {};
    return parse(sealed);
}

}  // namespace sandbox
