#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/plist/FullXmlReader.h"
#include "platform/plist/PlainXmlReader.h"
#include "platform/plist/Plist.h"

// Any bytes: refused, or a value that is written and read back to the same text; and what the quick reader takes, the
// full one takes for the same. The texts are compared because a real that is no number equals nothing, itself included.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const plist::Limits limits{.bytes = std::size_t{1} << 16, .depth = 16, .values = 512};
    const std::string_view bytes{reinterpret_cast<const char*>(data), size};
    if (size > limits.bytes) return 0;
    const auto root = plist::readFullXml(bytes, limits);
    if (const auto plain = plist::readPlainXml(bytes, limits)) {
        if (!root || *plist::writeXml(*plain) != *plist::writeXml(*root)) std::abort();
    }
    if (!root) {
        if (root.error().localizedDescription().empty()) std::abort();
        return 0;
    }
    const auto text = plist::writeXml(*root);
    if (!text) std::abort();
    const auto back = plist::readXml(*text);
    if (!back || *plist::writeXml(*back) != *text) std::abort();
    return 0;
}
