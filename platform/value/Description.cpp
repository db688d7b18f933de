#include <iterator>

#include <fmt/format.h>

#include "platform/value/Value.h"

namespace value {

namespace {

// Nothing this deep is worth reading, and the walk must not follow a hostile value down the stack.
constexpr int kDeepest = 16;

using Out = std::back_insert_iterator<std::string>;

void describe(const Value& value, std::string& text, int depth);

void describeData(const Data& data, std::string& text) {
    constexpr std::size_t kShown = 32;
    text += '<';
    for (std::size_t i = 0; i < data.size() && i < kShown; ++i) {
        fmt::format_to(Out{text}, "{:02x}", std::to_integer<unsigned>(data[i]));
    }
    if (data.size() > kShown) fmt::format_to(Out{text}, "... {} bytes", data.size());
    text += '>';
}

void describeArray(const Array& array, std::string& text, int depth) {
    text += '(';
    const char* separator = "";
    for (const Value& element : array) {
        text += separator;
        describe(element, text, depth + 1);
        separator = ", ";
    }
    text += ')';
}

void describeDictionary(const Dictionary& dictionary, std::string& text, int depth) {
    text += '{';
    const char* separator = "";
    for (const Dictionary::Entry& entry : dictionary) {
        text += separator;
        text += entry.key;
        text += " = ";
        describe(entry.value, text, depth + 1);
        separator = "; ";
    }
    text += '}';
}

void describe(const Value& value, std::string& text, int depth) {
    if (depth > kDeepest) {
        text += "...";
        return;
    }
    switch (value.kind()) {
        case Kind::boolean: text += *value.boolean() ? '1' : '0'; return;
        case Kind::signedInteger: fmt::format_to(Out{text}, "{}", *value.signedInteger()); return;
        case Kind::unsignedInteger: fmt::format_to(Out{text}, "{}", *value.unsignedInteger()); return;
        case Kind::real: fmt::format_to(Out{text}, "{}", *value.real()); return;
        case Kind::string: text += *value.string(); return;
        case Kind::data: describeData(*value.data(), text); return;
        case Kind::date: fmt::format_to(Out{text}, "date {}", value.date()->seconds); return;
        case Kind::array: describeArray(*value.array(), text, depth); return;
        case Kind::dictionary: describeDictionary(*value.dictionary(), text, depth); return;
        case Kind::uuid: text += value.uuid()->string(); return;
        case Kind::error: text += value.error()->localizedDescription(); return;
    }
}

}  // namespace

std::string description(const Value& value) {
    std::string text;
    describe(value, text, 0);
    return text;
}

}  // namespace value
