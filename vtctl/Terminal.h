#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Words for people. Texts come from bundles, files and other processes: nothing in them may move the cursor, forge a
// line or turn the direction of writing, so all of them pass through here before they are printed.
namespace terminal {

// The text as it is shown: control characters and bytes that are not UTF-8 as \n, \xNN or \uNNNN.
std::string shown(std::string_view text);

// The same for a text that may be missing or empty, which is a "-".
std::string shownOrDash(std::optional<std::string_view> text);

// A word that a shell reads back as the text, as far as the text can be shown as it is.
std::string quoted(std::string_view text);

// Says on standard error what is wrong, and what to do; lines are separated by \n, everything else is shown.
void complain(std::string_view message);

// Columns, as wide as their widest cell. The cells are printed as they are: shown() has been called on them.
void printTable(const std::vector<std::vector<std::string>>& rows, std::ostream& stream, std::string_view indent = "");

}  // namespace terminal
