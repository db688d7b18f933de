#pragma once

#include <optional>

#include "platform/value/Value.h"

class VTDPlugIn;

// Where a record asks for the annotation record that applies to it. The database is the one in the daemon; rules can be
// evaluated against records of any other.
class VTDAnnotationSource {
public:
    virtual ~VTDAnnotationSource() = default;

    // Nothing when the user never decided anything about the plug-in.
    virtual std::optional<value::Dictionary> annotationForPlugIn(const VTDPlugIn& plugIn) = 0;
};
