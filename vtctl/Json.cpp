#include "vtctl/Json.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <optional>

#include "platform/logging/Escape.h"

namespace json {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

value::Error malformed(const std::string& what) {
    return {"vtctl", 0, what};
}

std::string toBase64(mox::Bytes bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t here = std::min<std::size_t>(3, bytes.size() - i);
        unsigned group = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < here ? std::to_integer<unsigned>(bytes[i + k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) text += k <= here ? kAlphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::optional<value::Data> fromBase64(std::string_view text) {
    if (text.size() % 4 != 0) return {};
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return {};
    value::Data data;
    unsigned group = 0;
    int bits = 0;
    for (const char c : text) {
        const std::size_t digit = kAlphabet.find(c);
        if (digit == std::string_view::npos) return {};
        group = group << 6 | static_cast<unsigned>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            data.push_back(static_cast<std::byte>(group >> bits & 0xFF));
        }
    }
    return data;
}

std::string toRfc3339(value::Date date) {
    const double whole = std::floor(date.seconds);
    // Beyond these years there is no four-digit year to write.
    if (!(whole >= -62167219200.0 && whole <= 253402300799.0)) return std::to_string(date.seconds);
    const auto seconds = static_cast<std::time_t>(whole);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 64> text;
    const auto milliseconds = static_cast<int>((date.seconds - whole) * 1000);
    if (milliseconds == 0) {
        std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts);
        return text.data();
    }
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string fraction = std::to_string(1000 + milliseconds).substr(1);
    return std::string{text.data()} + "." + fraction + "Z";
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

Json fromView(mox::View view) {
    switch (view.kind()) {
        case mox::Kind::boolean: return *view.boolean();
        case mox::Kind::signedInteger: return *view.signedInteger();
        case mox::Kind::unsignedInteger: return *view.unsignedInteger();
        case mox::Kind::real: return {{"$real", *view.real()}};
        case mox::Kind::string: return *view.string();
        case mox::Kind::data: return {{"$data", toBase64(*view.data())}};
        case mox::Kind::date: return {{"$date", toRfc3339(*view.date())}};
        case mox::Kind::uuid: return {{"$uuid", view.uuid()->string()}};
        case mox::Kind::error: return view.error()->localizedDescription();
        case mox::Kind::message: return fromView(*view.message());
        case mox::Kind::array: {
            Json array = Json::array();
            view.forEachElement([&](mox::View element) { array.push_back(fromView(element)); });
            return array;
        }
        case mox::Kind::dictionary: {
            Json object = Json::object();
            view.forEachEntry(
                [&](std::string_view key, mox::View entry) { object[std::string{key}] = fromView(entry); });
            return object;
        }
    }
    return {};
}

std::string text(const Json& json) {
    return safe(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string indentedText(const Json& json) {
    return safe(json.dump(2, ' ', false, Json::error_handler_t::replace));
}

}  // namespace json
