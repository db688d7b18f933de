#include "platform/plist/Plist.h"

#include "platform/file/File.h"

namespace plist {

value::Result<value::Value> read(std::string_view bytes, const Limits& limits) {
    // Any version of the binary encoding, so that a later one is refused as what it is.
    return bytes.starts_with("bplist") ? readBinary(bytes, limits) : readXml(bytes, limits);
}

value::Result<value::Value> readFile(const std::string& path, const Limits& limits) {
    const auto contents = file::readRegular(path, limits.bytes);
    if (!contents) return contents.error();
    auto root = read(contents->bytes, limits);
    if (root) return root;
    value::Error error = root.error();
    error.message = path + ", " + error.localizedDescription();
    return error;
}

}  // namespace plist
