#include "fuzz/Fuzz.h"
#include "platform/plist/FullXmlReader.h"
#include "platform/plist/PlainXmlReader.h"
#include "platform/plist/Plist.h"

// Any bytes: refused, or a value that is written and read back to the same text; and what the quick reader takes, the
// full one takes for the same. The texts are compared because a real that is no number equals nothing, itself included.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const plist::Limits limits{.bytes = std::size_t{1} << 16, .depth = 16, .values = 512};
    if (size > limits.bytes) return 0;
    const auto root = plist::readFullXml(fuzz::textOf(data, size), limits);
    const auto plain = plist::readPlainXml(fuzz::textOf(data, size), limits);
    if (plain) fuzz::require(root && *plist::writeXml(*plain) == *plist::writeXml(*root));
    fuzz::require(root || !root.error().localizedDescription().empty());
    if (!root) return 0;
    const auto text = plist::writeXml(*root);
    fuzz::require(text.ok());
    const auto back = plist::readXml(*text);
    fuzz::require(back && *plist::writeXml(*back) == *text);
    return 0;
}
