#include "platform/plist/PlainXmlReader.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <utility>

#include "platform/plist/ScalarText.h"
#include "platform/plist/TreeBuilder.h"
#include "platform/text/Utf8.h"

namespace plist {

namespace {

enum class Byte : std::uint8_t { plain, high, ampersand, less, foreign };

// What a byte of text means here. A carriage return is foreign because XML reads it as a line feed, and so is a bare
// ">", which ends no text but may end a forbidden "]]>".
constexpr std::array<Byte, 256> kBytes = [] {
    std::array<Byte, 256> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = i < 0x20 ? Byte::foreign : i < 0x80 ? Byte::plain : Byte::high;
    bytes['\t'] = bytes['\n'] = Byte::plain;
    bytes['\r'] = bytes['>'] = Byte::foreign;
    bytes['&'] = Byte::ampersand;
    bytes['<'] = Byte::less;
    return bytes;
}();

class Reader {
public:
    Reader(std::string_view bytes, const Limits& limits) : rest_{bytes}, tree_{limits} {}

    std::optional<value::Value> read() {
        consume("<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
        skipBlanks();
        if (!consume("<plist version=\"1.0\">") && !consume("<plist>")) return {};
        for (;;) {
            skipBlanks();
            if (consume("</plist>")) break;
            if (!readTag()) return {};
        }
        skipBlanks();
        if (!rest_.empty() || !tree_.complete()) return {};
        return tree_.takeRoot();
    }

private:
    // One element, or the beginning or end of a container.
    bool readTag() {
        if (!consume("<")) return false;
        if (consume("key>")) return readText("</key>") && !tree_.addKey(std::string{text_});
        if (consume("string>")) return readText("</string>") && !tree_.add(text_);
        if (consume("/dict>")) return tree_.isInDictionary() && !tree_.close();
        if (consume("/array>")) return tree_.isInArray() && !tree_.close();
        if (consume("dict>")) return !tree_.openDictionary();
        if (consume("array>")) return !tree_.openArray();
        if (consume("true/>")) return !tree_.add(true);
        if (consume("false/>")) return !tree_.add(false);
        if (consume("integer>")) return readText("</integer>") && addParsed(integerOf(text_));
        if (consume("real>")) return readText("</real>") && addParsed(realOf(text_));
        if (consume("date>")) return readText("</date>") && addParsed(dateOf(text_));
        if (consume("data>")) return readText("</data>") && addParsed(dataOf(text_));
        if (consume("string/>")) return !tree_.add("");
        if (consume("dict/>")) return !tree_.openDictionary() && !tree_.close();
        if (consume("array/>")) return !tree_.openArray() && !tree_.close();
        return false;
    }

    template <typename Parsed>
    bool addParsed(std::optional<Parsed> parsed) {
        return parsed && !tree_.add(std::move(*parsed));
    }

    // Up to the end tag, into `text_`: a view of the input, or of what was unescaped.
    bool readText(std::string_view endTag) {
        bool escaped = false, high = false;
        std::size_t end = 0;
        for (;; ++end) {
            while (end < rest_.size() && byteAt(end) == Byte::plain) ++end;
            if (end == rest_.size() || byteAt(end) == Byte::foreign) return false;
            if (byteAt(end) == Byte::less) break;
            (byteAt(end) == Byte::high ? high : escaped) = true;
        }
        text_ = rest_.substr(0, end);
        rest_.remove_prefix(end);
        // Expat knows better than to take the two characters that XML lacks; leave all near them to it.
        if (high && (!text::isUtf8(text_) || text_.find("\xEF\xBF") != std::string_view::npos)) return false;
        return consume(endTag) && (!escaped || unescape());
    }

    bool unescape() {
        static constexpr std::pair<std::string_view, char> kEntities[] = {
            {"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
        unescaped_.clear();
        for (std::size_t at = 0; at < text_.size();) {
            const std::size_t ampersand = std::min(text_.find('&', at), text_.size());
            unescaped_.append(text_.substr(at, ampersand - at));
            if (ampersand == text_.size()) break;
            const std::string_view name = text_.substr(ampersand + 1);
            const auto* known = std::begin(kEntities);
            while (known != std::end(kEntities) && !name.starts_with(known->first)) ++known;
            if (known == std::end(kEntities)) return false;
            unescaped_ += known->second;
            at = ampersand + 1 + known->first.size();
        }
        text_ = unescaped_;
        return true;
    }

    Byte byteAt(std::size_t at) const { return kBytes[static_cast<unsigned char>(rest_[at])]; }

    bool consume(std::string_view expected) {
        if (!rest_.starts_with(expected)) return false;
        rest_.remove_prefix(expected.size());
        return true;
    }

    void skipBlanks() {
        std::size_t blanks = 0;
        while (blanks < rest_.size() && (rest_[blanks] == ' ' || rest_[blanks] == '\t' || rest_[blanks] == '\n'))
            ++blanks;
        rest_.remove_prefix(blanks);
    }

    std::string_view rest_;
    TreeBuilder tree_;
    std::string_view text_;
    std::string unescaped_;
};

}  // namespace

std::optional<value::Value> readPlainXml(std::string_view bytes, const Limits& limits) {
    return Reader{bytes, limits}.read();
}

}  // namespace plist
