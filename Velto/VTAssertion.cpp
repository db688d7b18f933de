#include "Velto/VTAssertion.h"

#include <atomic>

#include "platform/logging/Log.h"
#include "platform/text/Format.h"

static std::atomic<VTAssertionPolicy> assertionPolicy{VTAssertionPolicy::throwException};

void VTSetAssertionPolicy(VTAssertionPolicy policy) {
    assertionPolicy = policy;
}

void VTAssertionFailure(std::string_view condition, std::string_view unit) {
    if (assertionPolicy == VTAssertionPolicy::endProcess) logging::internalInconsistency(condition, unit);
    throw VTInternalInconsistency{text::format("{} ({})", condition, unit)};
}
