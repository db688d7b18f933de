#include "platform/mox/Object.h"

#include "platform/mox/Encoder.h"

namespace mox {

Object::Object(const value::Value& value) {
    Encoder encoder;
    encoder.value(value);
    bytes_ = std::make_shared<const std::vector<std::byte>>(encoder.take());
}

value::Result<Object> Object::decode(std::vector<std::byte> encoded, const Limits& limits) {
    return decode(std::move(encoded), 0, limits);
}

value::Result<Object> Object::decode(std::vector<std::byte> bytes, std::size_t offset, const Limits& limits) {
    if (offset > bytes.size()) return value::Error{"mox", 0, "the value lies beyond the bytes"};
    if (auto error = check(Bytes{bytes}.subspan(offset), limits)) return *std::move(error);
    return Object{std::make_shared<const std::vector<std::byte>>(std::move(bytes)), offset};
}

Object Object::adopt(std::vector<std::byte> encoded) {
    return Object{std::make_shared<const std::vector<std::byte>>(std::move(encoded)), 0};
}

Object Object::part(View inside) const {
    return Object{bytes_, static_cast<std::size_t>(inside.bytes() - bytes_->data())};
}

bool isError(const Object& object, ErrorCode code) {
    const auto error = object.view().error();
    return error && error->domain == "mox" && error->code == static_cast<std::int64_t>(code);
}

std::string errorDescription(const Object& object) {
    const auto error = object.view().error();
    return error ? error->localizedDescription() : description(object.view());
}

}  // namespace mox
