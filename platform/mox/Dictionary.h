#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/mox/Encoder.h"
#include "platform/mox/Object.h"

namespace mox {

// A Mox dictionary being built: a request before it is sent, or a reply that handlers fill. Setting a key again
// replaces its value. Belongs to one thread at a time.
class Dictionary {
public:
    using Content = std::variant<value::Value, Encoded>;

    void set(std::string_view key, value::Value value);      // the plain conversion
    void setEncoded(std::string_view key, Encoded encoded);  // bytes an Encoder made; sent without another copy

    bool contains(std::string_view key) const;
    const std::vector<std::pair<std::string, Content>>& entries() const { return entries_; }

    Object toObject() const;  // encodes all of it: for descriptions and tests

private:
    void put(std::string_view key, Content content);

    std::vector<std::pair<std::string, Content>> entries_;
};

std::string description(const Dictionary& dictionary);

}  // namespace mox
