#pragma once

#include <string>
#include <string_view>

namespace logging {

// Appends text so that it stays on its line and reads as what it is: control characters (of both ranges, and the line,
// paragraph and direction controls further up) and bytes that are not UTF-8 become \n, \t, \r, \xNN or \uNNNN. All
// else, backslashes too, stays as it is.
void appendEscaped(std::string& line, std::string_view text);

}  // namespace logging
