#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/mox/View.h"

namespace mox {

// Appends encoded values to a buffer that it owns. The pieces are written in the order of the calls; a dictionary is
// opened, given `key` and a value in turns, and closed. Bytes that an Encoder made before can be spliced in whole,
// which is how a cached form goes into a reply for the price of a copy. Mismatched calls are programming errors. A
// container of more than 4 GiB cannot be encoded; callers stay far below.
class Encoder {
public:
    Encoder() = default;
    Encoder(const Encoder&) = default;
    Encoder& operator=(const Encoder&) = default;
    Encoder(Encoder&& other) noexcept : bytes_{std::move(other.bytes_)}, size_{std::exchange(other.size_, 0)} {}
    Encoder& operator=(Encoder&& other) noexcept {
        bytes_ = std::move(other.bytes_);
        size_ = std::exchange(other.size_, 0);
        return *this;
    }
    ~Encoder() = default;

    void reserve(std::size_t bytes) { bytes_.reserve(bytes); }
    std::size_t size() const { return size_; }

    void value(const value::Value& value);  // the plain conversion
    void string(std::string_view text);

    // An open container; its header is completed by `end`. Entries or elements are counted as they are written.
    struct Container {
        std::size_t at;
        std::size_t count = 0;
    };
    [[nodiscard]] Container beginArray() { return begin(Kind::array); }
    [[nodiscard]] Container beginDictionary() { return begin(Kind::dictionary); }
    static void element(Container& array) { ++array.count; }   // before each element
    void key(Container& dictionary, std::string_view name);    // before each value
    void splice(Bytes encodedValue) { append(encodedValue); }  // one whole value
    void spliceEntries(Container& dictionary, Bytes entries, std::size_t count);
    // `elsewhere` is how many bytes of the container the caller sends itself, in their place among these.
    void end(const Container& container, std::size_t elsewhere = 0);

    void beginMessage();  // message form: then exactly one value

    Bytes bytes() const { return {bytes_.data(), size_}; }
    std::vector<std::byte> take();

    // For who keeps room before, between or behind what is encoded.
    std::byte* extend(std::size_t count) {  // by so many bytes, and answers where they are
        if (bytes_.size() - size_ < count) makeRoom(count);
        return bytes_.data() + std::exchange(size_, size_ + count);
    }
    void erase(std::size_t from, std::size_t count);
    std::byte* data() { return bytes_.data(); }

private:
    [[nodiscard]] Container begin(Kind kind);
    void append(Bytes bytes);
    void makeRoom(std::size_t count);
    void tag(Kind kind) { *extend(1) = static_cast<std::byte>(kind); }
    void text(std::string_view text);
    void error(const value::Error& error);
    template <typename Number>
    void number(Kind kind, Number number);
    template <typename Number>
    void number(Number number);

    std::vector<std::byte> bytes_;  // the encoded bytes, and a little room for the next small pieces
    std::size_t size_ = 0;
};

// How many bytes an Encoder makes of the value, in the plain conversion; a few more where text is not well-formed.
std::size_t encodedSize(const value::Value& value);

// A value that was encoded before, shared and spliced as it is.
using Encoded = std::shared_ptr<const std::vector<std::byte>>;

}  // namespace mox
