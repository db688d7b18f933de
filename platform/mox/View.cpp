#include "platform/mox/View.h"

#include "platform/effort/Effort.h"

namespace mox {

namespace {
constexpr std::uint64_t kUnitsAValue = 10;  // mostly what it allocates

std::uint64_t priceOf(View value) {
    return kUnitsAValue + (value.isArray() || value.isDictionary() ? 0 : effort::ofBytes(value.size()));
}
}  // namespace

std::optional<value::Date> View::date() const {
    if (const auto seconds = number<double>(Kind::date)) return value::Date{*seconds};
    return {};
}

std::optional<value::Uuid> View::uuid() const {
    if (const auto bytes = number<value::Uuid::Bytes>(Kind::uuid)) return value::Uuid{*bytes};
    return {};
}

std::optional<View> View::find(std::string_view key) const {
    std::optional<View> found;
    forEachEntry([&](std::string_view name, View value) {
        if (name != key) return true;
        found = value;
        return false;
    });
    return found;
}

value::Value View::toValue() const {
    static_cast<void>(effort::take(priceOf(*this)));
    switch (kind()) {
        case Kind::boolean: return *boolean();
        case Kind::signedInteger: return *signedInteger();
        case Kind::unsignedInteger: return *unsignedInteger();
        case Kind::real: return *real();
        case Kind::string: return *string();
        case Kind::data: return value::Data{data()->begin(), data()->end()};
        case Kind::date: return *date();
        case Kind::uuid: return *uuid();
        case Kind::error: return *error();
        case Kind::message: return message()->toValue();
        case Kind::array: {
            value::Array::Storage elements;
            elements.reserve(count());
            forEachElement([&](View element) { elements.push_back(element.toValue()); });
            return value::Array{std::move(elements)};
        }
        case Kind::dictionary: {
            value::Dictionary::Builder entries;
            entries.reserve(count());
            forEachEntry([&](std::string_view key, View value) { entries.set(key, value.toValue()); });
            return std::move(entries).build();
        }
    }
    return false;  // checked bytes hold no other tag
}

}  // namespace mox
