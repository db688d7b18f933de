#include "platform/text/NumericKey.h"

#include <functional>

namespace text {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Whether a zero leads a longer run of digits at the place.
bool isLeadingZero(std::string_view text, std::size_t at) {
    return text[at] == '0' && at + 1 < text.size() && isDigit(text[at + 1]) && (at == 0 || !isDigit(text[at - 1]));
}

}  // namespace

std::string numericKey(std::string_view text) {
    std::string key;
    key.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (isLeadingZero(text, at)) {
            while (at + 1 < text.size() && text[at] == '0' && isDigit(text[at + 1])) ++at;
        }
        key += text[at];
    }
    return key;
}

std::uint64_t numericHash(std::string_view text) {
    for (std::size_t at = text.find('0'); at != std::string_view::npos; at = text.find('0', at + 1)) {
        if (isLeadingZero(text, at)) return std::hash<std::string>{}(numericKey(text));
    }
    return std::hash<std::string_view>{}(text);
}

}  // namespace text
