#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/value/Value.h"

namespace types {

// Which type is declared to conform to which: built once from the content of the files, then only read. Types are
// numbered and edges kept by number; the closure is walked when asked, since a type has a handful of ancestors while
// the closure of a hostile file could fill the memory.
class TypeGraph {
public:
    // Types.plist: type to a text or an array of texts; anything else in it is passed over.
    void addDeclarations(const value::Dictionary& declarations);

    // The shared MIME database: lines of two words, "TYPE SUPERTYPE" and "ALIAS TYPE"; other lines are passed over.
    void addSubclasses(std::string_view lines);
    void addAliases(std::string_view lines);

    bool conforms(std::string_view a, std::string_view b) const;

private:
    using Type = std::uint32_t;

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };

    Type number(std::string_view name);
    void add(std::string_view type, std::string_view supertype);

    std::unordered_map<std::string, Type, Hash, std::equal_to<>> numbers_;
    std::vector<std::vector<Type>> supertypes_;  // by number
};

}  // namespace types
