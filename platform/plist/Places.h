#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace plist {

// Counted from 1, as editors do; a column counts characters.
struct Place {
    std::size_t line = 0;
    std::size_t column = 0;
};

// From the root: keys of dictionaries, and the numbers of elements of arrays, from 0.
using Path = std::vector<std::string>;

// Where the values of a property list stand in its XML text, for who tells a person about them.
class Places {
public:
    Places() = default;

    // Of a text that the reader has taken, within its limits. A binary list has no places.
    explicit Places(std::string_view bytes);

    // Of the value's key or, where it has none, of itself. Nothing where there is no such value.
    std::optional<Place> of(const Path& path) const;

private:
    std::map<Path, Place> places_;
};

}  // namespace plist
