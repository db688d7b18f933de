#pragma once

#include <string_view>

#include "platform/mox/View.h"
#include "platform/value/Value.h"
#include "vtd/rules/Complaints.h"
#include "vtd/rules/Rules.h"

// Holds the values of a plug-in against rules. What every rule costs is charged to the request; once that is spent
// nothing is met any more.
namespace rules {

// Whether a value of any kind, or none, meets the rule.
bool isMet(const Rules& rules, const Rules::Rule& rule, const value::Value* value, Complaints& complaints);

// The same of an encoded value, which is read where it lies.
bool isMet(const Rules& rules, const Rules::Rule& rule, mox::View value, Complaints& complaints);

// Of a value that is a text: always present, never equal to false.
bool isMetByText(const Rules& rules, const Rules::Rule& rule, std::string_view value, Complaints& complaints);

}  // namespace rules
