#include "platform/mox/Object.h"

#include <cstring>

#include "platform/mox/Encoder.h"

namespace mox {

Object::Object(const value::Value& value) {
    Encoder encoder;
    encoder.value(value);
    *this = adopt(encoder.take());
}

value::Result<Object> Object::decode(std::vector<std::byte> encoded, const Limits& limits) {
    if (auto error = check(encoded, limits)) return *std::move(error);
    return adopt(std::move(encoded));
}

Object Object::copyOf(Bytes encoded) {
    const std::shared_ptr<std::byte[]> copy = std::make_shared_for_overwrite<std::byte[]>(encoded.size());
    std::memcpy(copy.get(), encoded.data(), encoded.size());
    return Object{std::shared_ptr<const std::byte>{copy, copy.get()}};
}

Object Object::adopt(std::vector<std::byte> encoded) {
    auto kept = std::make_shared<const std::vector<std::byte>>(std::move(encoded));
    const std::byte* const at = kept->data();
    return Object{std::shared_ptr<const std::byte>{std::move(kept), at}};
}

Object Object::part(View inside) const {
    return Object{std::shared_ptr<const std::byte>{encoded_, inside.bytes()}};
}

// Errors are made on this side and never come from outside: nothing that is received gets here.
std::optional<value::Error> View::error() const {
    if (kind() != Kind::error) return {};
    // The code, the domain and, when there is one, the message, after a header like an array's.
    value::Error error;
    const std::byte* at = contents();
    const auto text = [&at] {
        const std::size_t length = encoding::load<std::uint32_t>(at);
        std::string result{reinterpret_cast<const char*>(at + encoding::kLengthSize), length};
        at += encoding::kLengthSize + length;
        return result;
    };
    error.code = encoding::load<std::int64_t>(at);
    at += sizeof(std::int64_t);
    error.domain = text();
    if (at != at_ + size()) error.message = text();
    return error;
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
