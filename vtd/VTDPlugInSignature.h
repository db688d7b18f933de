#pragma once

#include <string>

#include "Velto/VTAtomic.h"
#include "platform/value/Value.h"

// The code-signature facts of a plug-in, as forms carry them under "hash" and "requirement". Nothing here inspects
// code: the values are placeholders, and the hash differs from one signature to the next even for the same plug-in.
//
// Threading: each property is individually atomic.
class VTDPlugInSignature {
public:
    explicit VTDPlugInSignature(const std::string& url);  // never fails

    value::Data cdhash() const { return cdhash_.load(); }  // 20 bytes
    void setCdhash(value::Data cdhash) { cdhash_.store(std::move(cdhash)); }
    std::string requirement() const { return requirement_.load(); }
    void setRequirement(std::string requirement) { requirement_.store(std::move(requirement)); }

private:
    VTAtomic<value::Data> cdhash_;
    VTAtomic<std::string> requirement_;
};
