// Binary property lists.
//
//     list    := "bplist00" object* offset* trailer
//     offset  := where object number i begins, in offsetSize bytes
//     trailer := 0:u40 sortVersion:u8 offsetSize:u8 referenceSize:u8 objects:u64 root:u64 offsetTable:u64
//     object  := marker:u8 [length] body; the high half of the marker is the kind, the low one its length, or 15 for
//                "an integer object follows that says it"
//     reference := the number of an object, in referenceSize bytes
//
// All numbers are big-endian. Objects are shared freely by reference, so that the graph may have cycles and may stand
// for a tree far larger than the file: the walk keeps a stack of the containers it is in, and counts every value and
// every byte of text each time it is used.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/plist/Plist.h"
#include "platform/plist/TreeBuilder.h"
#include "platform/text/Format.h"

namespace plist {

namespace {

constexpr std::string_view kMagic = "bplist00";
constexpr std::size_t kTrailerSize = 32;
constexpr double kSecondsTo2001 = 978'307'200;  // dates count from 2001-01-01

enum class Marker : std::uint8_t {
    simple = 0x0,
    integer = 0x1,
    real = 0x2,
    date = 0x3,
    data = 0x4,
    ascii = 0x5,
    utf16 = 0x6,
    array = 0xA,
    dictionary = 0xD
};

std::uint64_t bigEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes) number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

void appendUtf8(std::string& text, std::uint32_t character) {
    const auto append = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
    const auto continuation = [&](unsigned shift) { append(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) return append(character);
    if (character < 0x800) {
        append(0xC0 | character >> 6);
    } else if (character < 0x10000) {
        append(0xE0 | character >> 12);
        continuation(6);
    } else {
        append(0xF0 | character >> 18);
        continuation(12);
        continuation(6);
    }
    continuation(0);
}

// Nothing when a surrogate stands alone.
std::optional<std::string> utf8Of(std::string_view units) {
    std::string text;
    text.reserve(units.size() / 2);
    for (std::size_t at = 0; at < units.size(); at += 2) {
        auto character = static_cast<std::uint32_t>(bigEndian(units.substr(at, 2)));
        if (character >= 0xDC00 && character <= 0xDFFF) return {};
        if (character >= 0xD800 && character <= 0xDBFF) {
            at += 2;
            const auto low = static_cast<std::uint32_t>(bigEndian(units.substr(std::min(at, units.size()), 2)));
            if (low < 0xDC00 || low > 0xDFFF) return {};
            character = 0x10000 + ((character - 0xD800) << 10 | (low - 0xDC00));
        }
        appendUtf8(text, character);
    }
    return text;
}

// Integers of less than eight bytes are unsigned, those of eight and sixteen are signed. Nothing beyond 64 bits.
std::optional<value::Value> integerIn(std::string_view body) {
    if (body.size() <= 8) return value::Value{static_cast<std::int64_t>(bigEndian(body))};
    const std::uint64_t high = bigEndian(body.substr(0, 8));
    const std::uint64_t low = bigEndian(body.substr(8));
    const bool highestBit = low >> 63 != 0;
    if (high == 0 && highestBit) return value::Value{low};
    if (high != (highestBit ? std::numeric_limits<std::uint64_t>::max() : 0)) return {};
    return value::Value{static_cast<std::int64_t>(low)};
}

class Reader {
public:
    Reader(std::string_view bytes, const Limits& limits) : bytes_{bytes}, tree_{limits}, textLeft_{limits.bytes} {}

    value::Result<value::Value> read() {
        if (auto fault = readTrailer()) return errorOf(*fault, "trailer");
        if (auto fault = walk()) {
            return errorOf(*fault, text::format("object {} at byte {}", current_, offsetOf(current_)));
        }
        return tree_.takeRoot();
    }

private:
    // An object as far as its marker and length tell; the body lies within the file.
    struct Object {
        Marker marker = Marker::simple;
        std::uint8_t low = 0;     // half of the marker
        std::uint64_t count = 0;  // elements of a container, units of a text, bytes of data
        std::string_view body;
    };

    // A container whose elements are being read.
    struct Walked {
        std::uint64_t object;
        Object content;
        std::uint64_t next = 0;  // element, or entry
    };

    std::optional<Fault> readTrailer() {
        if (!bytes_.starts_with(kMagic)) return Fault{.what = "of another version of the encoding"};
        if (bytes_.size() < kMagic.size() + kTrailerSize) return Fault{.what = "cut short"};
        tableOffset_ = bytes_.size() - kTrailerSize;  // until the trailer says better: nothing is read beyond it
        const std::string_view trailer = bytes_.substr(tableOffset_);
        offsetSize_ = static_cast<unsigned char>(trailer[6]);
        referenceSize_ = static_cast<unsigned char>(trailer[7]);
        objects_ = bigEndian(trailer.substr(8, 8));
        current_ = bigEndian(trailer.substr(16, 8));
        const std::uint64_t table = bigEndian(trailer.substr(24, 8));
        if (offsetSize_ < 1 || offsetSize_ > 8 || referenceSize_ < 1 || referenceSize_ > 8) {
            return Fault{.what = "offsets or references of an impossible size"};
        }
        if (table < kMagic.size() || table > tableOffset_ || objects_ > (tableOffset_ - table) / offsetSize_) {
            return Fault{.what = "offset table outside the list"};
        }
        if (current_ >= objects_) return Fault{.what = "no such root"};
        tableOffset_ = table;
        return {};
    }

    std::uint64_t offsetOf(std::uint64_t object) const {
        return bigEndian(bytes_.substr(tableOffset_ + object * offsetSize_, offsetSize_));
    }

    // Depth first, in order. Each round finishes a container or takes up one more object.
    std::optional<Fault> walk() {
        if (auto fault = enter(current_)) return fault;
        while (!walked_.empty()) {
            Walked& innermost = walked_.back();
            if (innermost.next == innermost.content.count) {
                current_ = innermost.object;
                walked_.pop_back();
                if (auto fault = tree_.close()) return fault;
                continue;
            }
            const std::uint64_t index = innermost.next++;
            const bool keyed = innermost.content.marker == Marker::dictionary;
            if (keyed) {
                if (auto fault = readKey(reference(innermost, index))) return fault;
            }
            if (auto fault = enter(reference(innermost, keyed ? innermost.content.count + index : index))) return fault;
        }
        return {};
    }

    std::uint64_t reference(const Walked& container, std::uint64_t index) const {
        return bigEndian(container.content.body.substr(index * referenceSize_, referenceSize_));
    }

    std::optional<Fault> readKey(std::uint64_t object) {
        Object key;
        if (auto fault = readObject(object, key)) return fault;
        std::string text;
        if (key.marker != Marker::ascii && key.marker != Marker::utf16) return Fault{.what = "a key that is no text"};
        if (auto fault = readText(key, text)) return fault;
        return tree_.addKey(std::move(text));
    }

    // Adds a plain value to the tree, or opens a container and leaves its elements to the walk.
    std::optional<Fault> enter(std::uint64_t number) {
        Object object;
        if (auto fault = readObject(number, object)) return fault;
        switch (object.marker) {
            case Marker::simple: return enterBoolean(object);
            case Marker::integer: {
                auto integer = integerIn(object.body);
                return integer ? tree_.add(std::move(*integer)) : Fault{.what = "an integer beyond 64 bits"};
            }
            case Marker::real: return tree_.add(realIn(object.body));
            case Marker::date: {
                const double seconds = realIn(object.body) + kSecondsTo2001;
                return std::isfinite(seconds) ? tree_.add(value::Date{seconds}) : Fault{.what = "no point in time"};
            }
            case Marker::data: {
                if (auto fault = charge(object.body.size())) return fault;
                const auto bytes = std::as_bytes(std::span{object.body});
                return tree_.add(value::Data{bytes.begin(), bytes.end()});
            }
            case Marker::ascii:
            case Marker::utf16: {
                std::string text;
                if (auto fault = readText(object, text)) return fault;
                return tree_.add(std::move(text));
            }
            case Marker::array:
            case Marker::dictionary: return enterContainer(number, object);
        }
        return Fault{.what = "an object of an unknown kind"};
    }

    std::optional<Fault> enterBoolean(const Object& object) {
        constexpr std::uint8_t kFalse = 0x8;
        constexpr std::uint8_t kTrue = 0x9;
        if (object.low != kFalse && object.low != kTrue) return Fault{.what = "a null or a filler"};
        return tree_.add(object.low == kTrue);
    }

    std::optional<Fault> enterContainer(std::uint64_t number, const Object& object) {
        for (const Walked& outer : walked_) {
            if (outer.object == number) return Fault{.what = "a container inside itself"};
        }
        if (auto fault = object.marker == Marker::array ? tree_.openArray() : tree_.openDictionary()) return fault;
        walked_.push_back({number, object});
        return {};
    }

    static double realIn(std::string_view body) {
        if (body.size() == 4) return std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(body)));
        return std::bit_cast<double>(bigEndian(body));
    }

    std::optional<Fault> readText(const Object& object, std::string& text) {
        if (auto fault = charge(object.body.size())) return fault;
        if (object.marker == Marker::ascii) {
            for (const char c : object.body) {
                if (static_cast<unsigned char>(c) >= 0x80) return Fault{.what = "a text that is no ASCII"};
            }
            text = object.body;
            return {};
        }
        auto decoded = utf8Of(object.body);
        if (!decoded) return Fault{.what = "a text that is no UTF-16"};
        text = std::move(*decoded);
        return {};
    }

    std::optional<Fault> charge(std::size_t bytes) {
        if (bytes > textLeft_) return Fault{ErrorCode::beyondLimits, "too much text and data"};
        textLeft_ -= bytes;
        return {};
    }

    std::optional<Fault> readObject(std::uint64_t number, Object& object) {
        if (number >= objects_)
            return Fault{.what = text::format("a reference to object {}, which is not there", number)};
        current_ = number;
        const std::uint64_t offset = offsetOf(number);
        if (offset < kMagic.size() || offset >= tableOffset_) return Fault{.what = "outside the list"};
        std::string_view rest = bytes_.substr(offset, tableOffset_ - offset);
        const auto marker = static_cast<unsigned char>(rest.front());
        rest.remove_prefix(1);
        object.marker = static_cast<Marker>(marker >> 4);
        object.low = marker & 0xF;
        std::uint64_t unit = 1;  // bytes to each of what the length counts
        switch (object.marker) {
            case Marker::simple: return {};
            case Marker::integer:
            case Marker::real:
            case Marker::date: return readNumber(object, rest);
            case Marker::data:
            case Marker::ascii: break;
            case Marker::utf16: unit = 2; break;
            case Marker::array: unit = referenceSize_; break;
            case Marker::dictionary: unit = 2 * referenceSize_; break;
            default: return Fault{.what = "an object of a kind that is not read"};
        }
        if (!readCount(object, rest)) return Fault{.what = "a length that is none"};
        if (object.count > rest.size() / unit) return Fault{.what = "an object that ends outside the list"};
        object.body = rest.substr(0, object.count * unit);
        return {};
    }

    static std::optional<Fault> readNumber(Object& object, std::string_view rest) {
        const bool known = object.marker == Marker::integer ? object.low <= 4
                           : object.marker == Marker::real  ? object.low == 2 || object.low == 3
                                                            : object.low == 3;
        if (!known) return Fault{.what = "a number of an impossible size"};
        const std::size_t size = std::size_t{1} << object.low;
        if (size > rest.size()) return Fault{.what = "an object that ends outside the list"};
        object.body = rest.substr(0, size);
        return {};
    }

    // The length in the marker, or in the integer object that stands before the body.
    static bool readCount(Object& object, std::string_view& rest) {
        constexpr std::uint8_t kFollows = 0xF;
        object.count = object.low;
        if (object.low != kFollows) return true;
        if (rest.empty() || static_cast<unsigned char>(rest.front()) >> 4 != static_cast<int>(Marker::integer))
            return false;
        const std::size_t size = std::size_t{1} << (static_cast<unsigned char>(rest.front()) & 0xF);
        if (size > sizeof object.count || size >= rest.size()) return false;
        object.count = bigEndian(rest.substr(1, size));
        rest.remove_prefix(1 + size);
        return true;
    }

    const std::string_view bytes_;
    TreeBuilder tree_;
    std::size_t textLeft_;

    std::size_t offsetSize_ = 0;
    std::size_t referenceSize_ = 0;
    std::uint64_t objects_ = 0;
    std::uint64_t tableOffset_ = 0;  // objects end here

    std::uint64_t current_ = 0;  // the object that an error speaks of
    std::vector<Walked> walked_;
};

}  // namespace

value::Result<value::Value> readBinary(std::string_view bytes, const Limits& limits) {
    if (bytes.size() > limits.bytes) {
        return errorOf({ErrorCode::beyondLimits, "too large"}, text::format("{} bytes", bytes.size()));
    }
    return Reader{bytes, limits}.read();
}

}  // namespace plist
