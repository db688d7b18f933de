#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/mox/Encoder.h"
#include "platform/mox/Object.h"
#include "platform/mox/Wire.h"

namespace mox {

// A Mox dictionary being built: a request before it is sent, or a reply that handlers fill. What is set is encoded at
// once, behind room for a frame's header, so that sending it copies nothing. Setting a key again replaces its value.
// Belongs to one thread at a time.
class Dictionary {
public:
    void set(std::string_view key, const value::Value& value);  // the plain conversion
    void setEncoded(std::string_view key, Encoded encoded);     // bytes an Encoder made; large ones are shared

    // Any text: spares making a value of it.
    template <typename Text>
    std::enable_if_t<std::is_convertible_v<const Text&, std::string_view>> set(std::string_view key, const Text& text) {
        setText(key, text);
    }

    bool contains(std::string_view key) const { return find(key).has_value(); }

    Object toObject() const;  // a copy of all of it: for descriptions and tests

    // Large encoded values lie elsewhere: each with where among the dictionary's own bytes it belongs.
    struct Splice {
        std::size_t at;
        Encoded bytes;
    };

    // The frame that consists of this header, whose length is filled in, and this dictionary. Lies in the dictionary,
    // and is valid until that changes.
    struct Framed {
        std::span<std::byte> own;
        std::span<const Splice> elsewhere;
        std::size_t size;  // of all of it
    };
    Framed framed(wire::Header header) const;

    // What framed() has shown, to be kept: leaves the dictionary empty.
    struct Taken {
        std::vector<std::byte> own;
        std::vector<Splice> elsewhere;
    };
    Taken take();

private:
    struct Found {
        std::size_t at;
        std::size_t size;
        std::size_t splice;
        bool isSpliced;
    };

    void begin() const;
    Encoder& entry(std::string_view key);
    void setText(std::string_view key, std::string_view text);
    std::optional<Found> find(std::string_view key) const;

    // Mutable for the headers alone, which are written last.
    mutable Encoder encoder_;
    mutable Encoder::Container container_{};
    std::vector<Splice> splices_;
};

std::string description(const Dictionary& dictionary);

}  // namespace mox
