#include <string_view>
#include <utility>

#include "platform/effort/Effort.h"
#include "platform/plist/Plist.h"
#include "platform/plist/ScalarText.h"
#include "platform/plist/TreeBuilder.h"
#include "platform/text/Utf8.h"

namespace plist {

namespace {

using value::Kind;
using value::Value;

constexpr std::size_t kBytesAUnit = 4;  // each is looked at by itself

Fault unwritable(const char* what) {
    return {ErrorCode::unwritable, what};
}

// Appends the lines of a value; the first thing that cannot be written ends the walk. Recursion ends at the depth that
// the reader takes.
class Writer {
public:
    explicit Writer(std::string& out) : out_{out} {}

    std::optional<Fault> write(const Value& value, std::size_t depth) {
        switch (value.kind()) {
            case Kind::boolean: return line(depth, *value.boolean() ? "<true/>" : "<false/>");
            case Kind::signedInteger: return leaf(depth, "integer", std::to_string(*value.signedInteger()));
            case Kind::unsignedInteger: return leaf(depth, "integer", std::to_string(*value.unsignedInteger()));
            case Kind::real: return leaf(depth, "real", textOf(*value.real()));
            case Kind::data: return leaf(depth, "data", textOf(*value.data()));
            case Kind::string: return text(depth, "string", *value.string());
            case Kind::date: return date(depth, *value.date());
            case Kind::array: return array(depth, *value.array());
            case Kind::dictionary: return dictionary(depth, *value.dictionary());
            default: return unwritable("a value of a kind that only messages have");
        }
    }

    std::optional<Fault> key(std::size_t depth, std::string_view name) { return text(depth, "key", name); }

private:
    std::optional<Fault> line(std::size_t depth, std::string_view tag) {
        out_.append(depth, '\t').append(tag).append("\n");
        return {};
    }

    void open(std::size_t depth, std::string_view name) {
        out_.append(depth, '\t').append("<").append(name).append(">");
    }
    void close(std::string_view name) { out_.append("</").append(name).append(">\n"); }

    std::optional<Fault> leaf(std::size_t depth, std::string_view name, std::string_view content) {
        open(depth, name);
        out_.append(content);
        close(name);
        return {};
    }

    std::optional<Fault> date(std::size_t depth, value::Date when) {
        const auto content = textOf(when);
        return content ? leaf(depth, "date", *content) : unwritable("a date outside the years 0 to 9999");
    }

    std::optional<Fault> text(std::size_t depth, std::string_view name, std::string_view content) {
        if (!text::isUtf8(content)) return unwritable("a text that is no UTF-8");
        open(depth, name);
        std::size_t written = 0;
        for (std::size_t at = 0; at < content.size(); ++at) {
            const std::string_view escaped = escapeOf(content[at]);
            const bool lacking = escaped.empty() ? isLacking(content.substr(at, 3)) : false;
            if (lacking) return unwritable("a text with a character that XML lacks");
            if (escaped.empty()) continue;
            out_.append(content.substr(written, at - written)).append(escaped);
            written = at + 1;
        }
        out_.append(content.substr(written));
        close(name);
        return {};
    }

    // A carriage return would be read back as a line feed.
    static std::string_view escapeOf(char c) {
        switch (c) {
            case '&': return "&amp;";
            case '<': return "&lt;";
            case '>': return "&gt;";
            case '\r': return "&#13;";
            default: return {};
        }
    }

    // Whether XML has no way to write the character that begins here: control characters, U+FFFE and U+FFFF.
    static bool isLacking(std::string_view text) {
        const auto first = static_cast<unsigned char>(text.front());
        return (first < 0x20 && first != '\t' && first != '\n') || text == "\xEF\xBF\xBE" || text == "\xEF\xBF\xBF";
    }

    std::optional<Fault> array(std::size_t depth, const value::Array& elements) {
        if (elements.empty()) return line(depth, "<array/>");
        if (depth >= Limits{}.depth) return unwritable("containers too deep inside one another");
        line(depth, "<array>");
        for (const Value& element : elements) {
            if (auto fault = write(element, depth + 1)) return fault;
        }
        return line(depth, "</array>");
    }

    std::optional<Fault> dictionary(std::size_t depth, const value::Dictionary& entries) {
        if (entries.empty()) return line(depth, "<dict/>");
        if (depth >= Limits{}.depth) return unwritable("containers too deep inside one another");
        line(depth, "<dict>");
        for (const auto& [key, value] : entries) {
            if (auto fault = this->key(depth + 1, key)) return fault;
            if (auto fault = write(value, depth + 1)) return fault;
        }
        return line(depth, "</dict>");
    }

    std::string& out_;
};

constexpr char kOperation[] = "writing a property list";

}  // namespace

value::Result<std::string> writeXml(const value::Value& root) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n";
    const auto fault = Writer{text}.write(root, 0);
    static_cast<void>(effort::take(text.size() / kBytesAUnit));
    if (fault) return errorOf(*fault, kOperation);
    return text.append("</plist>\n");
}

value::Result<std::string> writeXmlLines(const value::Value& value, std::size_t depth) {
    std::string lines;
    if (const auto fault = Writer{lines}.write(value, depth)) return errorOf(*fault, kOperation);
    return lines;
}

value::Result<std::string> writeXmlKey(std::string_view key, std::size_t depth) {
    std::string line;
    if (const auto fault = Writer{line}.key(depth, key)) return errorOf(*fault, kOperation);
    return line;
}

}  // namespace plist
