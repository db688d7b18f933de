#include "Velto/VTProcessAssertion.h"

#include <utility>

value::Result<VTProcessAssertion> VTProcessAssertion::take(const std::string& bundleIdentifier) {
    auto assertion = assertions::Assertion::take(bundleIdentifier);
    if (!assertion) return assertion.error();
    return VTProcessAssertion{*std::move(assertion)};
}
