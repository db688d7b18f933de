#pragma once

#include <iosfwd>
#include <string>

#include <nlohmann/json.hpp>

#include "platform/mox/View.h"
#include "platform/value/Value.h"

// JSON for the values of requests and replies. Booleans, strings, arrays and objects map plainly; an integer is
// unsigned when it is not negative, else signed. The other kinds are written both ways as an object of one member:
// {"$uuid": "..."}, {"$data": "base64"}, {"$date": "RFC 3339"}, {"$real": 1.0}. The order of members is kept.
namespace json {

using Json = nlohmann::ordered_json;

value::Result<Json> parse(const std::string& text);

// What a JSON value stands for in a request. A null, and a "$" object whose content is malformed, is an error.
value::Result<value::Value> toValue(const Json& json);

// One line, or indented over several. What is not to be shown on a terminal as it is, is escaped by JSON's own rules.
std::string text(const Json& json);
std::string indentedText(const Json& json);

// The same of a value of a message (JsonText.cpp), whose text may be large: the second writes while it reads.
std::string text(mox::View view);
void printIndented(mox::View view, std::ostream& out);

}  // namespace json
