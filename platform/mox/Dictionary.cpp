#include "platform/mox/Dictionary.h"

#include <cstring>

namespace mox {

namespace {

constexpr std::size_t kUsualSize = 256;     // of a request, or of a reply that is no discovery's
constexpr std::size_t kLeastSplice = 4096;  // below, a copy costs less than a piece of its own
constexpr std::size_t kLongList = 256;
constexpr std::size_t kFirstEntry = wire::kHeaderSize + encoding::kContainerHeader;

}  // namespace

void Dictionary::set(std::string_view key, const value::Value& value) {
    Encoder& encoder = entry(key);
    // A long list must not be copied time and again while it grows.
    const value::Array* const array = value.array();
    if (array != nullptr && array->size() >= kLongList) encoder.reserve(encoder.size() + encodedSize(value));
    encoder.value(value);
}

void Dictionary::setText(std::string_view key, std::string_view text) {
    entry(key).string(text);
}

void Dictionary::setEncoded(std::string_view key, Encoded encoded) {
    Encoder& encoder = entry(key);
    if (encoded->size() < kLeastSplice) {
        encoder.splice(*encoded);
    } else {
        splices_.push_back({encoder.size(), std::move(encoded)});
    }
}

void Dictionary::begin() const {
    encoder_.reserve(kUsualSize);
    encoder_.extend(wire::kHeaderSize);
    container_ = encoder_.beginDictionary();
}

// Begins an entry in place of one that has the key, if there is one; its value comes next.
Encoder& Dictionary::entry(std::string_view key) {
    if (encoder_.size() == 0) {
        splices_.clear();
        begin();
    } else if (const auto former = find(key)) {
        encoder_.erase(former->at, former->size);
        --container_.count;
        for (std::size_t i = former->splice; i < splices_.size(); ++i) splices_[i].at -= former->size;
        if (former->isSpliced) splices_.erase(splices_.begin() + static_cast<std::ptrdiff_t>(former->splice));
    }
    encoder_.key(container_, key);
    return encoder_;
}

std::optional<Dictionary::Found> Dictionary::find(std::string_view key) const {
    const std::byte* const bytes = encoder_.bytes().data();
    std::size_t splice = 0;
    for (std::size_t at = kFirstEntry; at < encoder_.size();) {
        const std::size_t length = encoding::load<std::uint32_t>(bytes + at);
        const std::string_view name{reinterpret_cast<const char*>(bytes + at + encoding::kLengthSize), length};
        const std::size_t value = at + encoding::kLengthSize + length;
        const bool isSpliced = splice < splices_.size() && splices_[splice].at == value;
        const std::size_t end = isSpliced ? value : value + View{bytes + value}.size();
        if (name == key) return Found{at, end - at, splice, isSpliced};
        if (isSpliced) ++splice;
        at = end;
    }
    return {};
}

Dictionary::Framed Dictionary::framed(wire::Header header) const {
    if (encoder_.size() == 0) begin();
    std::size_t elsewhere = 0;
    for (const Splice& splice : splices_) elsewhere += splice.bytes->size();
    encoder_.end(container_, elsewhere);
    const std::size_t size = encoder_.size() + elsewhere;
    header.length = static_cast<std::uint32_t>(size - sizeof header.length);
    std::memcpy(encoder_.data(), &header, sizeof header);
    return {{encoder_.data(), encoder_.size()}, splices_, size};
}

Dictionary::Taken Dictionary::take() {
    return {encoder_.take(), std::exchange(splices_, {})};
}

Object Dictionary::toObject() const {
    const Framed framed = this->framed({});
    Encoder whole;
    whole.reserve(framed.size);
    std::size_t at = wire::kHeaderSize;
    for (const Splice& splice : framed.elsewhere) {
        whole.splice(framed.own.subspan(at, splice.at - at));
        whole.splice(*splice.bytes);
        at = splice.at;
    }
    whole.splice(framed.own.subspan(at));
    return Object::adopt(whole.take());
}

}  // namespace mox
