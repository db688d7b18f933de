#pragma once

#include <string>

#include "platform/assertions/Assertions.h"
#include "platform/value/Error.h"

// How a plug-in's process says that it is busy: while it holds an assertion for its bundle identifier, nobody gets a
// hold on the application that the plug-in belongs to. Needs no daemon.
//
//     auto busy = VTProcessAssertion::take("example.postcard.share");
//     if (!busy) ...  busy.error() says why
//
// Ownership: given back when the object goes, or when the process ends in any way. Movable.
// Threading: any thread. In the child of a fork the parent's assertion is nothing; the child takes one of its own.
class VTProcessAssertion {
public:
    // The identifier is the bundle's QFBundleIdentifier. An error (of the domain "posix") says what could not be done.
    static value::Result<VTProcessAssertion> take(const std::string& bundleIdentifier);

private:
    explicit VTProcessAssertion(assertions::Assertion assertion) : assertion_{std::move(assertion)} {}

    assertions::Assertion assertion_;
};
