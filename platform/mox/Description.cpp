#include <iterator>

#include <fmt/format.h>

#include "platform/mox/Dictionary.h"
#include "platform/mox/Object.h"

namespace mox {

namespace {

// A dump is one line of a log. A discovery's reply may be megabytes; its beginning tells enough.
constexpr std::size_t kLongest = 16 << 10;
constexpr std::size_t kShownBytes = 32;

using Out = std::back_insert_iterator<std::string>;

void describe(View view, std::string& text);

template <typename Contents>
void describeContainer(const char* name, std::string& text, Contents&& contents) {
    text += name;
    text += " {";
    contents();
    text += " }";
}

void describe(View view, std::string& text) {
    if (text.size() > kLongest) return;
    switch (view.kind()) {
        case Kind::boolean: text += *view.boolean() ? "true" : "false"; return;
        case Kind::signedInteger: fmt::format_to(Out{text}, "int64 {}", *view.signedInteger()); return;
        case Kind::unsignedInteger: fmt::format_to(Out{text}, "uint64 {}", *view.unsignedInteger()); return;
        case Kind::real: fmt::format_to(Out{text}, "double {}", *view.real()); return;
        case Kind::date: fmt::format_to(Out{text}, "date {}", view.date()->seconds); return;
        case Kind::uuid: text += view.uuid()->string(); return;
        case Kind::error: text += "error: " + view.error()->localizedDescription(); return;
        case Kind::string: fmt::format_to(Out{text}, "\"{}\"", view.string()->substr(0, kLongest)); return;
        case Kind::data: {
            const Bytes bytes = *view.data();
            text += "data ";
            for (std::size_t i = 0; i < bytes.size() && i < kShownBytes; ++i) {
                fmt::format_to(Out{text}, "{:02x}", std::to_integer<unsigned>(bytes[i]));
            }
            if (bytes.size() > kShownBytes) fmt::format_to(Out{text}, "... ({} bytes)", bytes.size());
            return;
        }
        case Kind::message: return describe(*view.message(), text);
        case Kind::array:
            return describeContainer("array", text, [&] {
                view.forEachElement([&](View element) {
                    text += ' ';
                    describe(element, text);
                    return text.size() <= kLongest;
                });
            });
        case Kind::dictionary:
            return describeContainer("dictionary", text, [&] {
                view.forEachEntry([&](std::string_view key, View entry) {
                    fmt::format_to(Out{text}, " \"{}\" =", key.substr(0, kLongest));
                    text += ' ';
                    describe(entry, text);
                    return text.size() <= kLongest;
                });
            });
    }
}

}  // namespace

std::string description(View view) {
    std::string text;
    describe(view, text);
    if (text.size() > kLongest) {
        text.resize(kLongest);
        text += " ...";
    }
    return text;
}

std::string description(const Dictionary& dictionary) {
    return description(dictionary.toObject().view());
}

}  // namespace mox
