#include "platform/mox/Dictionary.h"

#include <algorithm>

namespace mox {

namespace {

template <typename Entries>
auto positionOf(Entries& entries, std::string_view key) {
    return std::find_if(entries.begin(), entries.end(), [key](const auto& entry) { return entry.first == key; });
}

}  // namespace

void Dictionary::set(std::string_view key, value::Value value) {
    put(key, std::move(value));
}
void Dictionary::setEncoded(std::string_view key, Encoded encoded) {
    put(key, std::move(encoded));
}

void Dictionary::put(std::string_view key, Content content) {
    const auto at = positionOf(entries_, key);
    if (at != entries_.end()) {
        at->second = std::move(content);
    } else {
        entries_.emplace_back(std::string{key}, std::move(content));
    }
}

bool Dictionary::contains(std::string_view key) const {
    return positionOf(entries_, key) != entries_.end();
}

Object Dictionary::toObject() const {
    Encoder encoder;
    Encoder::Container dictionary = encoder.beginDictionary();
    for (const auto& [key, content] : entries_) {
        encoder.key(dictionary, key);
        if (const auto* value = std::get_if<value::Value>(&content)) {
            encoder.value(*value);
        } else {
            encoder.splice(*std::get<Encoded>(content));
        }
    }
    encoder.end(dictionary);
    return Object::adopt(encoder.take());
}

}  // namespace mox
