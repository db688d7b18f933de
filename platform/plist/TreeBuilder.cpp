#include "platform/plist/TreeBuilder.h"

#include <iterator>
#include <utility>

#include "platform/text/Format.h"

namespace plist {

value::Error errorOf(const Fault& fault, std::string_view where) {
    return {"plist", static_cast<std::int64_t>(fault.code), text::format("{}: {}", where, fault.what)};
}

TreeBuilder::Pending& TreeBuilder::spare() {
    static thread_local Pending pending;
    return pending;
}

TreeBuilder::TreeBuilder(const Limits& limits) : limits_{limits}, pending_{std::exchange(spare(), {})} {
    constexpr std::size_t kUsualDepth = 8;
    constexpr std::size_t kUsualEntries = 64;
    open_.reserve(kUsualDepth);
    pending_.reserve(kUsualEntries);
}

TreeBuilder::~TreeBuilder() {
    constexpr std::size_t kMostKept = 1024;
    pending_.clear();
    if (pending_.capacity() <= kMostKept) spare() = std::move(pending_);
}

std::optional<Fault> TreeBuilder::open(Container container) {
    if (open_.size() >= limits_.depth) return Fault{ErrorCode::beyondLimits, "containers too deep inside one another"};
    if (auto fault = countValue()) return fault;
    if (auto fault = checkPlace()) return fault;
    open_.push_back({container, false, pending_.size()});
    return {};
}

std::optional<Fault> TreeBuilder::addKey(std::string key) {
    if (!isInDictionary()) return Fault{.what = "key outside a dictionary"};
    if (open_.back().awaitsValue) return Fault{.what = "key without a value"};
    pending_.push_back({std::move(key), false});
    open_.back().awaitsValue = true;
    return {};
}

std::optional<Fault> TreeBuilder::add(value::Value value) {
    if (auto fault = countValue()) return fault;
    if (auto fault = checkPlace()) return fault;
    place(std::move(value));
    return {};
}

std::optional<Fault> TreeBuilder::close() {
    const Open closing = open_.back();
    if (closing.awaitsValue) return Fault{.what = "key without a value"};
    open_.pop_back();
    const auto first = std::next(pending_.begin(), static_cast<std::ptrdiff_t>(closing.firstEntry));
    if (closing.container == Container::array) {
        value::Array::Storage elements;
        elements.reserve(pending_.size() - closing.firstEntry);
        for (auto entry = first; entry != pending_.end(); ++entry) elements.push_back(std::move(entry->value));
        pending_.erase(first, pending_.end());
        place(value::Array{std::move(elements)});
    } else {
        auto dictionary =
            value::Dictionary::ofUnique({std::make_move_iterator(first), std::make_move_iterator(pending_.end())});
        if (!dictionary) return Fault{.what = "dictionary in which a key stands twice"};
        pending_.erase(first, pending_.end());
        place(std::move(*dictionary));
    }
    return {};
}

std::optional<Fault> TreeBuilder::countValue() {
    if (++values_ > limits_.values) return Fault{ErrorCode::beyondLimits, "too many values"};
    return {};
}

std::optional<Fault> TreeBuilder::checkPlace() const {
    if (open_.empty()) return hasRoot_ ? std::optional{Fault{.what = "more than one root"}} : std::nullopt;
    const Open& parent = open_.back();
    if (parent.container == Container::dictionary && !parent.awaitsValue) return Fault{.what = "value without a key"};
    return {};
}

void TreeBuilder::place(value::Value value) {
    if (open_.empty()) {
        root_ = std::move(value);
        hasRoot_ = true;
    } else if (open_.back().container == Container::array) {
        pending_.push_back({{}, std::move(value)});
    } else {
        pending_.back().value = std::move(value);
        open_.back().awaitsValue = false;
    }
}

}  // namespace plist
