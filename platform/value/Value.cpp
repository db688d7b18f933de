#include "platform/value/Value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <type_traits>

#include "platform/logging/Invariant.h"

namespace value {

namespace {

constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();

template <typename Entries>
auto positionOf(Entries& entries, std::string_view key) {
    return std::lower_bound(
        entries.begin(), entries.end(), key,
        [](const Dictionary::Entry& entry, std::string_view k) { return entry.key.compare(k) < 0; });
}

template <typename Entries>
const Value* findIn(const Entries& entries, std::string_view key) {
    const auto at = positionOf(entries, key);
    return at != entries.end() && at->key == key ? &at->value : nullptr;
}

std::int64_t saturated(std::uint64_t v) {
    return v > static_cast<std::uint64_t>(kLargest) ? kLargest : static_cast<std::int64_t>(v);
}

std::int64_t saturated(double v) {
    if (std::isnan(v)) return 0;
    if (v <= static_cast<double>(kSmallest)) return kSmallest;
    if (v >= static_cast<double>(kLargest)) return kLargest;
    return static_cast<std::int64_t>(v);
}

std::int64_t leadingInteger(std::string_view text) {
    const std::size_t start = text.find_first_not_of(" \t\n\r");
    if (start == std::string_view::npos) return 0;
    text.remove_prefix(start);
    const bool negative = text.front() == '-';
    if (text.front() == '+') text.remove_prefix(1);
    std::int64_t result = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), result);
    if (read.ec == std::errc::result_out_of_range) return negative ? kSmallest : kLargest;
    return result;
}

// Exact across kinds: a real never makes two different integers equal by rounding them.
bool equalNumbers(std::int64_t a, double b) {
    return b >= static_cast<double>(kSmallest) && b < static_cast<double>(kLargest) && std::trunc(b) == b &&
           static_cast<std::int64_t>(b) == a;
}

bool equalNumbers(std::uint64_t a, double b) {
    constexpr double kBeyond = 18446744073709551616.0;  // 2 to the 64th
    return b >= 0 && b < kBeyond && std::trunc(b) == b && static_cast<std::uint64_t>(b) == a;
}

bool equalNumbers(const Value& a, const Value& b) {
    if (a.kind() == Kind::real && b.kind() == Kind::real) return *a.real() == *b.real();
    if (a.kind() == Kind::real) return equalNumbers(b, a);
    if (b.kind() == Kind::real) {
        if (const auto u = a.unsignedInteger()) return equalNumbers(*u, *b.real());
        return equalNumbers(*a.integerValue(), *b.real());
    }
    if (a.kind() == b.kind() && a.kind() == Kind::unsignedInteger) return a.unsignedInteger() == b.unsignedInteger();
    // One side at most is unsigned; beyond the signed range it equals nothing.
    const auto beyond = [](const Value& v) {
        return v.unsignedInteger().value_or(0) > static_cast<std::uint64_t>(kLargest);
    };
    return !beyond(a) && !beyond(b) && a.integerValue() == b.integerValue();
}

}  // namespace

// --- Array

Array::Array() {
    static const auto empty = std::make_shared<const Storage>();
    storage_ = empty;
}
Array::Array(Storage elements) : storage_{std::make_shared<const Storage>(std::move(elements))} {}
Array::Array(std::initializer_list<Value> elements) : Array{Storage{elements}} {}

std::size_t Array::size() const {
    return storage_->size();
}
const Value& Array::operator[](std::size_t index) const {
    return (*storage_)[index];
}
const Value* Array::begin() const {
    return storage_->data();
}
const Value* Array::end() const {
    return storage_->data() + storage_->size();
}

bool operator==(const Array& a, const Array& b) {
    return a.storage_ == b.storage_ || *a.storage_ == *b.storage_;
}

// --- Dictionary

Dictionary::Dictionary() {
    static const auto empty = std::make_shared<const Storage>();
    storage_ = empty;
}

Dictionary::Dictionary(Storage sorted) : storage_{std::make_shared<const Storage>(std::move(sorted))} {
    INVARIANT(std::adjacent_find(storage_->begin(), storage_->end(), [](const Entry& a, const Entry& b) {
                  return a.key.compare(b.key) >= 0;
              }) == storage_->end());
}

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
    Builder builder;
    builder.reserve(entries.size());
    for (const Entry& entry : entries) builder.set(entry.key, entry.value);
    *this = std::move(builder).build();
}

std::optional<Dictionary> Dictionary::ofUnique(Storage entries) {
    const auto before = [](const Entry& a, const Entry& b) { return a.key < b.key; };
    const auto same = [](const Entry& a, const Entry& b) { return a.key == b.key; };
    if (!std::is_sorted(entries.begin(), entries.end(), before)) std::sort(entries.begin(), entries.end(), before);
    if (std::adjacent_find(entries.begin(), entries.end(), same) != entries.end()) return {};
    return Dictionary{std::move(entries)};
}

std::size_t Dictionary::size() const {
    return storage_->size();
}
const Value* Dictionary::find(std::string_view key) const {
    return findIn(*storage_, key);
}

const std::string* Dictionary::string(std::string_view key) const {
    const Value* found = find(key);
    return found != nullptr ? found->string() : nullptr;
}

const Dictionary* Dictionary::dictionary(std::string_view key) const {
    const Value* found = find(key);
    return found != nullptr ? found->dictionary() : nullptr;
}

const Array* Dictionary::array(std::string_view key) const {
    const Value* found = find(key);
    return found != nullptr ? found->array() : nullptr;
}

Dictionary Dictionary::changing(std::string_view key, std::optional<Value> value) const {
    Builder builder{*this};
    if (value) {
        builder.set(key, *std::move(value));
    } else {
        builder.remove(key);
    }
    return std::move(builder).build();
}

const Dictionary::Entry* Dictionary::begin() const {
    return storage_->data();
}
const Dictionary::Entry* Dictionary::end() const {
    return storage_->data() + storage_->size();
}

bool operator==(const Dictionary& a, const Dictionary& b) {
    return a.storage_ == b.storage_ || *a.storage_ == *b.storage_;
}

// --- Dictionary::Builder

Dictionary::Builder::Builder(const Dictionary& start)
    : entries_{start.begin(), start.end()}, sorted_{entries_.size()} {}

void Dictionary::Builder::set(std::string_view key, Value value) {
    const bool isNext = sorted_ == entries_.size() && (entries_.empty() || entries_.back().key.compare(key) < 0);
    entries_.push_back({std::string{key}, std::move(value)});
    if (isNext) ++sorted_;
}

void Dictionary::Builder::settle() const {
    if (sorted_ == entries_.size()) return;
    const auto before = [](const Entry& a, const Entry& b) { return a.key < b.key; };
    const auto late = entries_.begin() + static_cast<std::ptrdiff_t>(sorted_);
    std::stable_sort(late, entries_.end(), before);
    std::inplace_merge(entries_.begin(), late, entries_.end(), before);
    // Of equal keys the last stays.
    std::size_t kept = 0;
    for (std::size_t at = 0; at < entries_.size(); ++at) {
        if (at + 1 < entries_.size() && entries_[at].key == entries_[at + 1].key) continue;
        if (kept != at) entries_[kept] = std::move(entries_[at]);
        ++kept;
    }
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(kept), entries_.end());
    sorted_ = kept;
}

void Dictionary::Builder::remove(std::string_view key) {
    settle();
    const auto at = positionOf(entries_, key);
    if (at == entries_.end() || at->key != key) return;
    entries_.erase(at);
    --sorted_;
}

const Value* Dictionary::Builder::find(std::string_view key) const {
    settle();
    return findIn(entries_, key);
}
std::size_t Dictionary::Builder::size() const {
    settle();
    return entries_.size();
}
Dictionary Dictionary::Builder::build() const& {
    settle();
    return Dictionary{entries_};
}
Dictionary Dictionary::Builder::build() && {
    settle();
    return Dictionary{std::move(entries_)};
}

// --- Value

template <typename T, typename Content>
static std::optional<T> copyOf(const Content& content) {
    const T* found = std::get_if<T>(&content);
    return found != nullptr ? std::optional<T>{*found} : std::nullopt;
}

template <typename T, typename Content>
static const T* sharedIn(const Content& content) {
    const auto* found = std::get_if<std::shared_ptr<const T>>(&content);
    return found != nullptr ? found->get() : nullptr;
}

std::optional<bool> Value::boolean() const {
    return copyOf<bool>(content_);
}
std::optional<std::int64_t> Value::signedInteger() const {
    return copyOf<std::int64_t>(content_);
}
std::optional<std::uint64_t> Value::unsignedInteger() const {
    return copyOf<std::uint64_t>(content_);
}
std::optional<double> Value::real() const {
    return copyOf<double>(content_);
}
std::optional<Date> Value::date() const {
    return copyOf<Date>(content_);
}
const std::string* Value::string() const {
    return sharedIn<std::string>(content_);
}
const Data* Value::data() const {
    return sharedIn<Data>(content_);
}
const Array* Value::array() const {
    return std::get_if<Array>(&content_);
}
const Dictionary* Value::dictionary() const {
    return std::get_if<Dictionary>(&content_);
}
const Uuid* Value::uuid() const {
    return std::get_if<Uuid>(&content_);
}
const Error* Value::error() const {
    return sharedIn<Error>(content_);
}

std::optional<std::int64_t> Value::integerValue() const {
    switch (kind()) {
        case Kind::boolean: return *boolean() ? 1 : 0;
        case Kind::signedInteger: return *signedInteger();
        case Kind::unsignedInteger: return saturated(*unsignedInteger());
        case Kind::real: return saturated(*real());
        case Kind::string: return leadingInteger(*string());
        default: return {};
    }
}

bool Value::booleanValue() const {
    if (const auto number = real()) return *number != 0;
    const std::string* text = string();
    if (text == nullptr) return integerValue().value_or(0) != 0;
    if (text->empty()) return false;
    const char first = text->front();
    return first == 'y' || first == 'Y' || first == 't' || first == 'T' || leadingInteger(*text) != 0;
}

bool operator==(const Value& a, const Value& b) {
    if (a.isNumber() && b.isNumber()) return equalNumbers(a, b);
    if (a.kind() != b.kind()) return false;
    switch (a.kind()) {
        case Kind::string: return *a.string() == *b.string();
        case Kind::data: return *a.data() == *b.data();
        case Kind::date: return *a.date() == *b.date();
        case Kind::array: return *a.array() == *b.array();
        case Kind::dictionary: return *a.dictionary() == *b.dictionary();
        case Kind::uuid: return *a.uuid() == *b.uuid();
        case Kind::error: return *a.error() == *b.error();
        default: return false;  // numbers were compared above
    }
}

}  // namespace value
