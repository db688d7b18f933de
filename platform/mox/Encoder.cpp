#include "platform/mox/Encoder.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "platform/text/Utf8.h"

namespace mox {

namespace {

constexpr std::size_t kShort = 64;  // pieces up to here are written into the room
constexpr std::size_t kRoom = 128;

}  // namespace

// Small pieces are most of a small message, and growing a vector for each costs more than what goes into it.
void Encoder::makeRoom(std::size_t count) {
    bytes_.resize(size_ + std::max(count, kRoom));
}

std::vector<std::byte> Encoder::take() {
    bytes_.resize(std::exchange(size_, 0));
    return std::move(bytes_);
}

void Encoder::erase(std::size_t from, std::size_t count) {
    const auto at = bytes_.begin() + static_cast<std::ptrdiff_t>(from);
    bytes_.erase(at, at + static_cast<std::ptrdiff_t>(count));
    size_ -= count;
}

template <typename Number>
void Encoder::number(Kind kind, Number number) {
    std::byte* const at = extend(encoding::kTagSize + sizeof number);
    *at = static_cast<std::byte>(kind);
    std::memcpy(at + encoding::kTagSize, &number, sizeof number);
}

template <typename Number>
void Encoder::number(Number number) {
    std::memcpy(extend(sizeof number), &number, sizeof number);
}

void Encoder::append(Bytes bytes) {
    if (bytes.size() <= kShort) {
        std::copy(bytes.begin(), bytes.end(), extend(bytes.size()));
        return;
    }
    bytes_.resize(size_);
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    size_ = bytes_.size();
}

void Encoder::text(std::string_view text) {
    if (!text::isUtf8(text)) return this->text(text::wellFormed(text));
    const auto length = static_cast<std::uint32_t>(text.size());
    if (text.size() > kShort) {
        number(length);
        return append(std::as_bytes(std::span{text}));
    }
    std::byte* const at = extend(sizeof length + text.size());
    std::memcpy(at, &length, sizeof length);
    std::memcpy(at + sizeof length, text.data(), text.size());
}

void Encoder::string(std::string_view text) {
    tag(Kind::string);
    this->text(text);
}

void Encoder::value(const value::Value& value) {
    switch (value.kind()) {
        case value::Kind::boolean:
            tag(Kind::boolean);
            *extend(1) = static_cast<std::byte>(*value.boolean());
            return;
        case value::Kind::signedInteger: return number(Kind::signedInteger, *value.signedInteger());
        case value::Kind::unsignedInteger: return number(Kind::unsignedInteger, *value.unsignedInteger());
        case value::Kind::real: return number(Kind::real, *value.real());
        case value::Kind::string: return string(*value.string());
        case value::Kind::data:
            tag(Kind::data);
            number(static_cast<std::uint32_t>(value.data()->size()));
            return append(*value.data());
        case value::Kind::date: return number(Kind::date, value.date()->seconds);
        case value::Kind::uuid: return number(Kind::uuid, value.uuid()->bytes());
        case value::Kind::error: return error(*value.error());
        case value::Kind::array: {
            Container array = beginArray();
            for (const value::Value& element : *value.array()) {
                Encoder::element(array);
                this->value(element);
            }
            return end(array);
        }
        case value::Kind::dictionary: {
            Container dictionary = beginDictionary();
            for (const value::Dictionary::Entry& entry : *value.dictionary()) {
                key(dictionary, entry.key);
                this->value(entry.value);
            }
            return end(dictionary);
        }
    }
}

std::size_t encodedSize(const value::Value& value) {
    using encoding::kTagSize, encoding::kLengthSize, encoding::kContainerHeader;
    switch (value.kind()) {
        case value::Kind::boolean: return kTagSize + 1;
        case value::Kind::string: return kTagSize + kLengthSize + value.string()->size();
        case value::Kind::data: return kTagSize + kLengthSize + value.data()->size();
        case value::Kind::array: {
            std::size_t size = kContainerHeader;
            for (const value::Value& element : *value.array()) size += encodedSize(element);
            return size;
        }
        case value::Kind::dictionary: {
            std::size_t size = kContainerHeader;
            for (const value::Dictionary::Entry& entry : *value.dictionary())
                size += kLengthSize + entry.key.size() + encodedSize(entry.value);
            return size;
        }
        case value::Kind::signedInteger:
        case value::Kind::unsignedInteger:
        case value::Kind::real:
        case value::Kind::date: return kTagSize + sizeof(std::uint64_t);
        default: return kTagSize + sizeof(value::Uuid);  // errors are never sent
    }
}

// Never sent, so its layout is nobody else's: a container's header, then code, domain and, when there is one, message.
void Encoder::error(const value::Error& error) {
    const Container container = begin(Kind::error);
    number(error.code);
    text(error.domain);
    if (error.message) text(*error.message);
    end(container);
}

Encoder::Container Encoder::begin(Kind kind) {
    const Container container{size_};
    *extend(encoding::kContainerHeader) = static_cast<std::byte>(kind);
    return container;
}

void Encoder::end(const Container& container, std::size_t elsewhere) {
    std::byte* const header = bytes_.data() + container.at + encoding::kTagSize;
    const auto size =
        static_cast<std::uint32_t>(size_ + elsewhere - container.at - encoding::kTagSize - encoding::kLengthSize);
    const auto count = static_cast<std::uint32_t>(container.count);
    std::memcpy(header, &size, sizeof size);
    std::memcpy(header + encoding::kLengthSize, &count, sizeof count);
}

void Encoder::key(Container& dictionary, std::string_view name) {
    ++dictionary.count;
    text(name);
}

void Encoder::spliceEntries(Container& dictionary, Bytes entries, std::size_t count) {
    dictionary.count += count;
    append(entries);
}

void Encoder::beginMessage() {
    tag(Kind::message);
}

}  // namespace mox
