#include "vtd/VTDPlugInSignature.h"

#include "platform/digest/Sha1.h"

namespace {

value::Data digestOfFreshUuid() {
    const auto digest = digest::sha1(value::Uuid::random().string());
    return {digest.begin(), digest.end()};
}

}  // namespace

VTDPlugInSignature::VTDPlugInSignature([[maybe_unused]] const std::string& url)
    : cdhash_{digestOfFreshUuid()}, requirement_{"dummy requirement"} {}
