#include <cstring>
#include <memory>
#include <vector>

#include "Velto/VTPlugInCore.h"
#include "Velto/VTRecordImage.h"
#include "fuzz/Fuzz.h"
#include "platform/mox/Object.h"

namespace {

struct IsFound {
    bool operator()(const value::Value* found) const { return found != nullptr; }
    bool operator()(mox::View) const { return true; }
};

}  // namespace

// Any bytes: refused as an image, or one that can be read in every way, and exported as a form that can be sent.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* const first = reinterpret_cast<const std::byte*>(data);
    const auto bytes = std::make_shared<const std::vector<std::byte>>(first, first + size);
    if (!VTRecordImage::check(*bytes)) return 0;
    VTPlugInCore record;
    record.setupWithImage(VTRecordImage{*bytes, bytes}, value::Uuid{});
    const auto form = record.exportForm();
    mox::Encoder encoder;
    form->encode(encoder);
    fuzz::require(encoder.size() <= form->encodedSizeHint());
    fuzz::require(!mox::check(encoder.bytes(), mox::kReplyLimits));
    static_cast<void>(record.identifier() + record.originalIdentifier() + record.url() + record.version() +
                      record.containingPath() + record.localizedName());
    // What is looked for is found: the very entry that the whole dictionary has.
    for (const auto& [key, entry] : record.plugInDictionary()) fuzz::require(record.plugInValue(key).has_value());
    for (const auto& [key, entry] : record.bundleInfoDictionary()) {
        fuzz::require(record.withAttribute(key, IsFound{}));
    }
    static_cast<void>(record.diagnose());
    return 0;
}
