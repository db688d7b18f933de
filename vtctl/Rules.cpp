#include "vtctl/Rules.h"

#include <utility>

#include "platform/mox/Object.h"
#include "platform/text/Utf8.h"
#include "vtctl/Json.h"
#include "vtctl/Terminal.h"

namespace rules {

namespace {

// "true" and "false" stand for the booleans; the texts are written "=true" and "=false".
value::Value patternOf(const std::string& text) {
    if (text == "true") return true;
    if (text == "false") return false;
    return text;
}

std::string wordOf(const std::string& key, const value::Value& pattern) {
    std::string text;
    if (const std::string* string = pattern.string()) {
        text = *string == "true" || *string == "false" ? '=' + *string : *string;
    } else {
        text = json::text(mox::Object{pattern}.view());
    }
    return terminal::quoted(key + '=' + text);
}

}  // namespace

value::Result<value::Dictionary> fromWords(const std::vector<std::string>& words) {
    value::Dictionary::Builder rules;
    for (const std::string& word : words) {
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos || equals == 0) {
            return value::Error{
                "vtctl", 0,
                '"' + word + "\" is no KEY=PATTERN; for example KXExtensionPointName=halvern.share-service"};
        }
        if (!text::isUtf8(word)) return value::Error{"vtctl", 0, '"' + word + "\" is not in UTF-8, as rules are"};
        const std::string key = word.substr(0, equals);
        const value::Value pattern = patternOf(word.substr(equals + 1));
        const value::Value* before = rules.find(key);
        if (before == nullptr) {
            rules.set(key, pattern);
            continue;
        }
        value::Array::Storage all;
        if (const value::Array* several = before->array()) {
            all.assign(several->begin(), several->end());
        } else {
            all.push_back(*before);
        }
        all.push_back(pattern);
        rules.set(key, value::Array{std::move(all)});
    }
    return std::move(rules).build();
}

std::string inWords(const value::Dictionary& rules) {
    std::string words;
    const auto add = [&words](const std::string& one) { words += (words.empty() ? "" : " ") + one; };
    for (const value::Dictionary::Entry& entry : rules) {
        const value::Array* several = entry.value.array();
        // A single pattern in an array reads back as the pattern itself, which means the same.
        if (several == nullptr || several->size() == 0) {
            add(wordOf(entry.key, entry.value));
            continue;
        }
        for (const value::Value& pattern : *several) add(wordOf(entry.key, pattern));
    }
    return words;
}

}  // namespace rules
