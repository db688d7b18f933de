#include "platform/plist/Plist.h"

#include <utility>

#include "platform/file/File.h"
#include "platform/plist/FullXmlReader.h"
#include "platform/plist/PlainXmlReader.h"
#include "platform/plist/TreeBuilder.h"
#include "platform/text/Format.h"

namespace plist {

value::Result<value::Value> read(std::string_view bytes, const Limits& limits) {
    // Any version of the binary encoding, so that a later one is refused as what it is.
    return bytes.starts_with("bplist") ? readBinary(bytes, limits) : readXml(bytes, limits);
}

value::Result<value::Value> readXml(std::string_view bytes, const Limits& limits) {
    if (bytes.size() > limits.bytes) {
        return errorOf({ErrorCode::beyondLimits, "too large"}, text::format("{} bytes", bytes.size()));
    }
    if (auto plain = readPlainXml(bytes, limits)) return std::move(*plain);
    return readFullXml(bytes, limits);
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
