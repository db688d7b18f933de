#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <ostream>
#include <utility>

#include "platform/logging/Escape.h"
#include "vtctl/Base64.h"
#include "vtctl/Json.h"

// Encoded values as JSON, written while they are walked: a reply may have tens of megabytes, of which no tree is made.

namespace json {

namespace {

std::string toRfc3339(value::Date date) {
    const double whole = std::floor(date.seconds);
    // Beyond these years there is no four-digit year to write.
    if (!(whole >= -62167219200.0 && whole <= 253402300799.0)) return std::to_string(date.seconds);
    const auto seconds = static_cast<std::time_t>(whole);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 64> text;
    const auto milliseconds = static_cast<int>((date.seconds - whole) * 1000);
    if (milliseconds == 0) {
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
        return text.data();
    }
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string fraction = std::to_string(1000 + milliseconds).substr(1);
    return std::string{text.data()} + "." + fraction + "Z";
}

class Writer {
public:
    // Without a stream everything stays in text().
    Writer(std::ostream* out, bool isIndented) : out_{out}, isIndented_{isIndented} {}
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    ~Writer() {
        if (out_ != nullptr) flush();
    }

    void value(mox::View view);
    std::string takeText() { return std::move(text_); }

private:
    static constexpr std::size_t kPiece = std::size_t{64} << 10;

    // What stands between the brackets of a container: an element each time `next` is called.
    class Container {
    public:
        Container(Writer& writer, char open, char close) : writer_{writer}, close_{close} {
            writer_.text_ += open;
            ++writer_.depth_;
        }
        Container(const Container&) = delete;
        Container& operator=(const Container&) = delete;
        ~Container() {
            --writer_.depth_;
            if (!isEmpty_) writer_.newLine();
            writer_.text_ += close_;
        }
        void next() {
            if (!isEmpty_) writer_.text_ += ',';
            isEmpty_ = false;
            writer_.newLine();
        }

    private:
        Writer& writer_;
        const char close_;
        bool isEmpty_ = true;
    };

    void newLine() {
        if (out_ != nullptr && text_.size() > kPiece) flush();
        if (isIndented_) text_.append(1, '\n').append(2 * depth_, ' ');
    }
    void flush() {
        out_->write(text_.data(), static_cast<std::streamsize>(text_.size()));
        text_.clear();
    }
    template <typename Number>
    void number(Number number) {
        std::array<char, 24> digits;
        text_.append(digits.data(), std::to_chars(digits.begin(), digits.end(), number).ptr);
    }
    void string(std::string_view text);
    void key(std::string_view name) {
        string(name);
        text_ += isIndented_ ? ": " : ":";
    }
    // A kind that JSON lacks.
    template <typename Write>
    void special(std::string_view name, const Write& write) {
        Container object{*this, '{', '}'};
        object.next();
        key(name);
        write();
    }

    std::ostream* const out_;
    const bool isIndented_;
    std::size_t depth_ = 0;
    std::string text_;
};

// What a terminal obeys beyond ASCII is escaped too; the log's escapes for it are JSON's.
void Writer::string(std::string_view text) {
    constexpr char kDigits[] = "0123456789abcdef";
    text_ += '"';
    while (!text.empty()) {
        std::size_t plain = 0;
        const auto isPlain = [](char c) {
            return static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\' && c != 0x7f;
        };
        while (plain < text.size() && isPlain(text[plain])) ++plain;
        logging::appendEscaped(text_, text.substr(0, plain));
        if (plain == text.size()) break;
        const char c = text[plain];
        text.remove_prefix(plain + 1);
        switch (c) {
            case '"': text_ += "\\\""; break;
            case '\\': text_ += "\\\\"; break;
            case '\b': text_ += "\\b"; break;
            case '\f': text_ += "\\f"; break;
            case '\n': text_ += "\\n"; break;
            case '\r': text_ += "\\r"; break;
            case '\t': text_ += "\\t"; break;
            default: text_.append("\\u00").append(1, kDigits[c >> 4]).append(1, kDigits[c & 15]);
        }
    }
    text_ += '"';
}

void Writer::value(mox::View view) {
    switch (view.kind()) {
        case mox::Kind::boolean: text_ += *view.boolean() ? "true" : "false"; break;
        case mox::Kind::signedInteger: number(*view.signedInteger()); break;
        case mox::Kind::unsignedInteger: number(*view.unsignedInteger()); break;
        case mox::Kind::real: special("$real", [&] { text_ += Json(*view.real()).dump(); }); break;
        case mox::Kind::string: string(*view.string()); break;
        case mox::Kind::data: special("$data", [&] { string(toBase64(*view.data())); }); break;
        case mox::Kind::date: special("$date", [&] { string(toRfc3339(*view.date())); }); break;
        case mox::Kind::uuid: special("$uuid", [&] { string(view.uuid()->string()); }); break;
        case mox::Kind::error: string(view.error()->localizedDescription()); break;
        case mox::Kind::message: value(*view.message()); break;
        case mox::Kind::array: {
            Container array{*this, '[', ']'};
            view.forEachElement([&](mox::View element) {
                array.next();
                value(element);
            });
            break;
        }
        case mox::Kind::dictionary: {
            Container object{*this, '{', '}'};
            view.forEachEntry([&](std::string_view name, mox::View entry) {
                object.next();
                key(name);
                value(entry);
            });
            break;
        }
    }
}

}  // namespace

std::string text(mox::View view) {
    Writer writer{nullptr, false};
    writer.value(view);
    return writer.takeText();
}

void printIndented(mox::View view, std::ostream& out) {
    Writer{&out, true}.value(view);
}

}  // namespace json
