#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "platform/mox/View.h"

namespace mox {

// Appends encoded values to a buffer that it owns. The pieces are written in the order of the calls; a dictionary is
// opened, given `key` and a value in turns, and closed. Bytes that an Encoder made before can be spliced in whole,
// which is how a cached form goes into a reply for the price of a copy. Mismatched calls are programming errors.
class Encoder {
public:
    void reserve(std::size_t bytes) { bytes_.reserve(bytes); }

    void value(const value::Value& value);  // the plain conversion
    void string(std::string_view text);

    // A container's header is completed by `end`; entries or elements are counted as they are written.
    struct Container {
        std::size_t at;
        std::size_t count = 0;
    };
    Container beginArray();
    Container beginDictionary();
    void element(Container& array);                          // before each element
    void key(Container& dictionary, std::string_view name);  // before each value
    void splice(Bytes encodedValue);                         // one whole value
    void spliceEntries(Container& dictionary, Bytes entries, std::size_t count);
    void end(const Container& container);

    std::size_t beginMessage();  // message form: then exactly one value
    void endMessage(std::size_t at);

    const std::vector<std::byte>& bytes() const { return bytes_; }
    std::vector<std::byte> take() { return std::move(bytes_); }

private:
    std::vector<std::byte> bytes_;
};

// A value that was encoded before, shared and spliced as it is.
using Encoded = std::shared_ptr<const std::vector<std::byte>>;

}  // namespace mox
