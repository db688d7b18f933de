#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Value.h"

// How XML property lists write numbers, dates and data, both ways. Blanks around a text are of no account.
namespace plist {

std::optional<value::Value> integerOf(std::string_view text);  // signed when it fits, else unsigned
std::optional<double> realOf(std::string_view text);
std::optional<value::Date> dateOf(std::string_view text);  // YYYY-MM-DDTHH:MM:SSZ and nothing else
std::optional<value::Data> dataOf(std::string_view text);  // base64, blanks anywhere

std::string textOf(double real);                      // the shortest that reads back as the same number
std::optional<std::string> textOf(value::Date date);  // nothing outside the years 0 to 9999
std::string textOf(const value::Data& data);

}  // namespace plist
