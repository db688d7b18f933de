#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/value/Value.h"

// Property lists: XML and binary read, XML written. Bad input ends in an error of the domain "plist" whose message says
// where; nothing is allocated on the strength of a claim, and no input recurses the reader beyond the depth.
namespace plist {

struct Limits {
    std::size_t bytes = std::size_t{16} << 20;
    std::size_t depth = 64;          // containers inside one another
    std::size_t values = 1'000'000;  // values in all, those shared in a binary list counted each time they are used
};

// Reads either encoding, told apart by the first bytes ("bplist00" is binary). A document type declaration is skipped;
// one with an internal subset is refused. A key that stands twice in a dictionary is refused. Texts are valid UTF-8.
value::Result<value::Value> read(std::string_view bytes, const Limits& limits = {});
value::Result<value::Value> readXml(std::string_view bytes, const Limits& limits = {});
value::Result<value::Value> readBinary(std::string_view bytes, const Limits& limits = {});

// Reads a regular file as file::readRegular does; errors are its own or of the domain "plist".
value::Result<value::Value> readFile(const std::string& path, const Limits& limits = {});

// The XML text, without a document type declaration, ending in a newline. Equal values give equal text. A value that
// no property list can hold (a UUID, an error, a text with a character that XML lacks, a date out of range) is an
// error.
value::Result<std::string> writeXml(const value::Value& root);

}  // namespace plist
