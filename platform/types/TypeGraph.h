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

    // Calls once with each type that this one conforms to, itself first, in no further order.
    void forEachSupertype(std::string_view type, const std::function<void(std::string_view)>& visit) const;

private:
    using Type = std::uint32_t;

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };

    Type number(std::string_view name);
    void add(std::string_view type, std::string_view supertype);

    // Walks the closure until the visitor says so; answers whether it did.
    template <typename Visitor>
    bool walkUntil(Type from, const Visitor& isLast) const;

    std::unordered_map<std::string, Type, Hash, std::equal_to<>> numbers_;
    std::vector<const std::string*> names_;      // by number; the map's keys
    std::vector<std::vector<Type>> supertypes_;  // by number
};

}  // namespace types
