#include "platform/services/Registration.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "platform/file/File.h"
#include "platform/file/UniqueFd.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"

namespace services {

namespace {

// Two such names, a number and the suffixes fit into the 255 bytes of a file name.
constexpr std::size_t kLongestPart = 115;

constexpr char kHost[] = "host";
constexpr char kStartTime[] = "hostStartTime";
constexpr char kBoot[] = "boot";
constexpr char kExecutable[] = "executable";
constexpr char kIdentifier[] = "identifier";
constexpr char kVersion[] = "version";
constexpr char kPlugIn[] = "plugIn";
constexpr char kUuid[] = "uuid";
constexpr char kOverlay[] = "overlay";

// Nothing for what is no integer, or below 0.
std::optional<std::uint64_t> count(const value::Dictionary& dictionary, const char* key) {
    const value::Value* const found = dictionary.find(key);
    if (found == nullptr || !found->isInteger()) return {};
    if (const auto large = found->unsignedInteger()) return large;
    const std::int64_t number = *found->signedInteger();
    return number >= 0 ? std::optional{static_cast<std::uint64_t>(number)} : std::nullopt;
}

}  // namespace

const std::string& bootIdentifier() {
    static const std::string& identifier = *new std::string{[] {
        const file::UniqueFd source{::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC)};
        std::array<char, 64> text;
        const ssize_t length = source ? ::read(source.get(), text.data(), text.size()) : 0;
        const std::string_view read{text.data(), static_cast<std::size_t>(length > 0 ? length : 0)};
        return std::string{read.substr(0, read.find('\n'))};
    }()};
    return identifier;
}

std::string bundlePathOf(const Registration& registration) {
    return registration.executable.substr(0, registration.executable.rfind('/'));
}

std::string fileName(const Registration& registration, std::size_t number) {
    std::string name = file::encodedName(registration.identifier, kLongestPart) + '@' +
                       file::encodedName(registration.version, kLongestPart);
    if (number > 1) name += text::format("@{}", number);
    return name + kFileSuffix;
}

value::Result<std::string> encode(const Registration& registration) {
    auto text = plist::writeXml(value::Dictionary{{kHost, std::int64_t{registration.host}},
                                                  {kStartTime, registration.startTime},
                                                  {kBoot, registration.boot},
                                                  {kExecutable, registration.executable},
                                                  {kIdentifier, registration.identifier},
                                                  {kVersion, registration.version},
                                                  {kPlugIn, registration.plugIn},
                                                  {kUuid, registration.uuid.string()},
                                                  {kOverlay, registration.overlay}});
    if (text && text->size() > kMostBytes) return value::posixError(EFBIG, registration.executable);
    return text;
}

std::optional<Registration> decode(std::string_view bytes) {
    const auto root = plist::read(bytes);
    const value::Dictionary* const content = root ? root->dictionary() : nullptr;
    if (content == nullptr) return {};
    const auto host = count(*content, kHost);
    const auto startTime = count(*content, kStartTime);
    const std::string* const executable = content->string(kExecutable);
    const std::string* const identifier = content->string(kIdentifier);
    const std::string* const version = content->string(kVersion);
    const std::string* const boot = content->string(kBoot);
    const std::string* const plugIn = content->string(kPlugIn);
    const std::string* const uuidText = content->string(kUuid);
    const auto uuid = uuidText != nullptr ? value::Uuid::parse(*uuidText) : std::nullopt;
    const value::Dictionary* const overlay = content->dictionary(kOverlay);
    if (!host || *host > std::numeric_limits<pid_t>::max() || !startTime || executable == nullptr ||
        identifier == nullptr || version == nullptr || boot == nullptr || plugIn == nullptr || !uuid ||
        overlay == nullptr || !executable->starts_with('/')) {
        return {};
    }
    return Registration{.host = static_cast<pid_t>(*host),
                        .startTime = *startTime,
                        .boot = *boot,
                        .executable = *executable,
                        .identifier = *identifier,
                        .version = *version,
                        .plugIn = *plugIn,
                        .uuid = *uuid,
                        .overlay = *overlay};
}

}  // namespace services
