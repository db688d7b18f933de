#include "fuzz/Fuzz.h"
#include "platform/plist/Plist.h"

// Any bytes: refused, or a value that, where XML can hold it, is written and read back to the same text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const plist::Limits limits{.bytes = std::size_t{1} << 16, .depth = 16, .values = 512};
    const auto root = plist::readBinary(fuzz::textOf(data, size), limits);
    fuzz::require(root || !root.error().localizedDescription().empty());
    if (!root) return 0;
    const auto text = plist::writeXml(*root);
    if (!text) return 0;  // a control character, or a date beyond the calendar
    const auto back = plist::readXml(*text);
    fuzz::require(back && *plist::writeXml(*back) == *text);
    return 0;
}
