#include <algorithm>
#include <vector>

#include "fuzz/Fuzz.h"
#include "platform/mox/Object.h"

// Any bytes: refused, or a value that can be read in full, described, and encoded again to one of equal content.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const std::byte*>(data);
    const auto object = mox::Object::decode({bytes, bytes + size}, mox::kRequestLimits);
    if (!object) return 0;
    const mox::View view = object->view();
    fuzz::require(view.size() == size);
    static_cast<void>(mox::description(view));
    // A typed read answers for its own kind alone.
    fuzz::require(view.date().has_value() == (view.kind() == mox::Kind::date));
    fuzz::require(view.uuid().has_value() == (view.kind() == mox::Kind::uuid));
    // Keys stand once each, so looking for one finds the very entry that the walk came by.
    view.forEachEntry([&](std::string_view key, mox::View entry) {
        const auto found = view.find(key);
        fuzz::require(found && found->bytes() == entry.bytes());
    });
    const mox::Object again{view.toValue()};
    const auto first = again.view().encoded();
    fuzz::require(!mox::check(first, mox::kRequestLimits));
    // A real that is no number equals nothing, itself included: compare the bytes.
    const mox::Object thrice{again.view().toValue()};
    const auto second = thrice.view().encoded();
    fuzz::require(std::equal(first.begin(), first.end(), second.begin(), second.end()));
    return 0;
}
