#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/value/Value.h"

// Property lists: XML and binary read, XML written. Bad input ends in an error of the domain "plist" whose message says
// where; nothing is allocated on the strength of a claim, and no input recurses the reader beyond the depth.
namespace plist {

// What a binary list shares among several places is counted each time it is used, so that a small file cannot stand for
// a huge tree.
struct Limits {
    std::size_t bytes = std::size_t{16} << 20;  // of the list, and of the texts and data of a binary one once decoded
    std::size_t depth = 64;                     // containers inside one another
    std::size_t values = 1'000'000;             // in all, the keys of dictionaries aside
};

// The codes of the domain "plist".
enum class ErrorCode : std::int64_t {
    malformed = 1,     // not a property list, or one that the system does not read
    beyondLimits = 2,  // larger, deeper or with more values than the caller takes
    unwritable = 3,    // a value that no property list can hold
};

// Reads either encoding, told apart by the first bytes ("bplist00" is binary). A key that stands twice in a dictionary
// is refused. Texts are valid UTF-8. An integer is a signed one when it fits, else unsigned; beyond 64 bits it is
// refused.
//
// XML: UTF-8, UTF-16, ISO-8859-1 or US-ASCII. A document type declaration is skipped; one with an internal subset is
// refused. Integers are decimal, or hexadecimal after "0x"; reals may be "nan" or "inf". Errors name line and column.
//
// Binary: sets, UIDs and nulls are refused, and so is a container inside itself. Errors name the object and its offset.
value::Result<value::Value> read(std::string_view bytes, const Limits& limits = {});
value::Result<value::Value> readXml(std::string_view bytes, const Limits& limits = {});
value::Result<value::Value> readBinary(std::string_view bytes, const Limits& limits = {});

// Reads a regular file as file::readRegular does; errors are its own or of the domain "plist".
value::Result<value::Value> readFile(const std::string& path, const Limits& limits = {});

// The XML text, without a document type declaration, indented by tabs, ending in a newline. Equal content gives equal
// text, and reading it gives the value back but for fractions of a second in dates, which are cut downwards. A value
// that no property list can hold (a UUID, an error, a text that is no UTF-8 or has a character that XML lacks, a date
// outside the years 0 to 9999) is an error, and so is one nested deeper than the reader takes by default.
value::Result<std::string> writeXml(const value::Value& root);

// The lines that a value, or the key of an entry, has in such a text so many containers deep: for who keeps the parts
// of a large list as they are written. Errors as above.
value::Result<std::string> writeXmlLines(const value::Value& value, std::size_t depth);
value::Result<std::string> writeXmlKey(std::string_view key, std::size_t depth);

}  // namespace plist
