#include "platform/types/TypeGraph.h"

#include <algorithm>
#include <utility>

namespace types {

namespace {

// Calls with the two words of each line that has just two.
template <typename Visitor>
void forEachPair(std::string_view lines, const Visitor& visit) {
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        const std::size_t space = line.find(' ');
        if (space == 0 || space == std::string_view::npos || line.front() == '#') continue;
        const std::string_view second = line.substr(space + 1);
        if (!second.empty() && second.find(' ') == std::string_view::npos) visit(line.substr(0, space), second);
    }
}

}  // namespace

void TypeGraph::addDeclarations(const value::Dictionary& declarations) {
    for (const value::Dictionary::Entry& entry : declarations) {
        if (const std::string* supertype = entry.value.string()) add(entry.key, *supertype);
        const value::Array* supertypes = entry.value.array();
        if (supertypes == nullptr) continue;
        for (const value::Value& element : *supertypes) {
            if (const std::string* supertype = element.string()) add(entry.key, *supertype);
        }
    }
}

void TypeGraph::addSubclasses(std::string_view lines) {
    forEachPair(lines, [this](std::string_view type, std::string_view supertype) { add(type, supertype); });
}

void TypeGraph::addAliases(std::string_view lines) {
    forEachPair(lines, [this](std::string_view alias, std::string_view type) {
        add(alias, type);
        add(type, alias);
    });
}

template <typename Visitor>
bool TypeGraph::walkUntil(Type from, const Visitor& isLast) const {
    std::vector<bool> seen(supertypes_.size());
    std::vector<Type> open{from};
    seen[from] = true;
    while (!open.empty()) {
        const Type type = open.back();
        open.pop_back();
        if (isLast(type)) return true;
        for (const Type supertype : supertypes_[type]) {
            if (seen[supertype]) continue;
            seen[supertype] = true;
            open.push_back(supertype);
        }
    }
    return false;
}

bool TypeGraph::conforms(std::string_view a, std::string_view b) const {
    if (a == b) return true;
    const auto from = numbers_.find(a);
    const auto to = numbers_.find(b);
    if (from == numbers_.end() || to == numbers_.end()) return false;
    return walkUntil(from->second, [&](Type type) { return type == to->second; });
}

void TypeGraph::forEachSupertype(std::string_view type, const std::function<void(std::string_view)>& visit) const {
    const auto from = numbers_.find(type);
    if (from == numbers_.end()) return visit(type);
    walkUntil(from->second, [&](Type supertype) {
        visit(*names_[supertype]);
        return false;
    });
}

TypeGraph::Type TypeGraph::number(std::string_view name) {
    if (const auto known = numbers_.find(name); known != numbers_.end()) return known->second;
    const Type next = static_cast<Type>(supertypes_.size());
    names_.push_back(&numbers_.emplace(name, next).first->first);
    supertypes_.emplace_back();
    return next;
}

void TypeGraph::add(std::string_view type, std::string_view supertype) {
    const Type from = number(type);
    const Type to = number(supertype);
    supertypes_[from].push_back(to);
}

}  // namespace types
