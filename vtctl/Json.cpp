#include "vtctl/Json.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>

#include "platform/logging/Escape.h"
#include "vtctl/Base64.h"

namespace json {

namespace {

value::Error malformed(const std::string& what) {
    return {"vtctl", 0, what};
}

std::optional<value::Date> fromRfc3339(const std::string& text) {
    std::tm parts{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (rest == nullptr) return {};
    double seconds = static_cast<double>(timegm(&parts));
    if (*rest == '.') {
        double digit = 0.1;
        for (++rest; *rest >= '0' && *rest <= '9'; ++rest, digit /= 10) seconds += digit * (*rest - '0');
    }
    if (*rest == 'Z' && rest[1] == '\0') return value::Date{seconds};
    int hours = 0;
    int minutes = 0;
    int used = 0;
    if ((*rest == '+' || *rest == '-') && std::sscanf(rest + 1, "%2d:%2d%n", &hours, &minutes, &used) == 2 &&
        rest[1 + used] == '\0') {
        const int offset = hours * 3600 + minutes * 60;
        return value::Date{seconds + (*rest == '+' ? -offset : offset)};
    }
    return {};
}

// The kinds that JSON lacks; nothing when the object is an ordinary one.
std::optional<value::Result<value::Value>> special(const Json& object) {
    if (object.size() != 1) return {};
    const std::string& name = object.begin().key();
    const Json& content = object.begin().value();
    if (name == "$real") {
        if (!content.is_number()) return malformed("$real takes a number");
        return value::Value{content.get<double>()};
    }
    if (name != "$uuid" && name != "$data" && name != "$date") return {};
    if (!content.is_string()) return malformed(name + " takes a string");
    const auto& text = content.get_ref<const std::string&>();
    if (name == "$uuid") {
        if (const auto uuid = value::Uuid::parse(text)) return value::Value{*uuid};
    } else if (name == "$data") {
        if (auto data = fromBase64(text)) return value::Value{*std::move(data)};
    } else if (const auto date = fromRfc3339(text)) {
        return value::Value{*date};
    }
    return malformed(name + " cannot be read from \"" + text + "\"");
}

// The dump escapes the control characters of ASCII but one. The others that a terminal obeys stand inside strings, too,
// and the log's escapes for them are JSON's.
std::string safe(const std::string& dumped) {
    std::string result;
    for (std::size_t at = 0; at < dumped.size();) {
        const std::size_t end = std::min(dumped.find_first_of("\n\x7f", at), dumped.size());
        logging::appendEscaped(result, std::string_view{dumped}.substr(at, end - at));
        if (end < dumped.size()) result += dumped[end] == '\n' ? "\n" : "\\u007f";
        at = end + 1;
    }
    return result;
}

}  // namespace

value::Result<Json> parse(const std::string& text) {
    // Deeper than any request may be is not worth the parser's stack.
    constexpr int kDeepest = 1000;
    bool tooDeep = false;
    const auto watchDepth = [&](int depth, Json::parse_event_t, Json&) {
        tooDeep = tooDeep || depth > kDeepest;
        return !tooDeep;
    };
    try {
        Json json = Json::parse(text, watchDepth);
        if (tooDeep) return malformed("JSON deeper than " + std::to_string(kDeepest) + " levels");
        return json;
    } catch (const Json::exception& error) {
        return malformed(error.what());
    }
}

value::Result<value::Value> toValue(const Json& json) {
    switch (json.type()) {
        case Json::value_t::boolean: return value::Value{json.get<bool>()};
        case Json::value_t::number_integer: {
            const auto number = json.get<std::int64_t>();
            if (number >= 0) return value::Value{static_cast<std::uint64_t>(number)};
            return value::Value{number};
        }
        case Json::value_t::number_unsigned: return value::Value{json.get<std::uint64_t>()};
        case Json::value_t::number_float: return value::Value{json.get<double>()};
        case Json::value_t::string: return value::Value{json.get<std::string>()};
        case Json::value_t::array: {
            value::Array::Storage elements;
            for (const Json& element : json) {
                auto converted = toValue(element);
                if (!converted) return converted.error();
                elements.push_back(*std::move(converted));
            }
            return value::Value{value::Array{std::move(elements)}};
        }
        case Json::value_t::object: {
            if (auto converted = special(json)) return *std::move(converted);
            value::Dictionary::Builder entries;
            for (const auto& member : json.items()) {
                auto converted = toValue(member.value());
                if (!converted) return converted.error();
                entries.set(member.key(), *std::move(converted));
            }
            return value::Value{std::move(entries).build()};
        }
        default: return malformed("null stands for no value");
    }
}

std::string text(const Json& json) {
    return safe(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string indentedText(const Json& json) {
    return safe(json.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace json
