#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "platform/mox/Object.h"

// Any bytes: refused, or a value that can be read in full, described, and encoded again to one of equal content.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    const auto object = mox::Object::decode({bytes, bytes + size}, mox::kRequestLimits);
    if (!object) return 0;
    if (object->view().size() != size) std::abort();
    static_cast<void>(mox::description(object->view()));
    // A typed read answers for its own kind alone.
    if (object->view().date().has_value() != (object->view().kind() == mox::Kind::date)) std::abort();
    if (object->view().uuid().has_value() != (object->view().kind() == mox::Kind::uuid)) std::abort();
    // Keys stand once each, so looking for one finds the very entry that the walk came by.
    object->view().forEachEntry([&](std::string_view key, mox::View entry) {
        const auto found = object->view().find(key);
        if (!found || found->bytes() != entry.bytes()) std::abort();
    });
    const value::Value value = object->view().toValue();
    const mox::Object again{value};
    if (mox::check(again.view().encoded(), mox::kRequestLimits)) std::abort();
    // A real that is no number equals nothing, itself included: compare the bytes.
    const auto first = again.view().encoded();
    const mox::Object thrice{again.view().toValue()};
    const auto second = thrice.view().encoded();
    if (!std::equal(first.begin(), first.end(), second.begin(), second.end())) std::abort();
    return 0;
}
