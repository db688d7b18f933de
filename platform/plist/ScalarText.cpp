#include "platform/plist/ScalarText.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>

#include <nettle/base64.h>

#include "platform/text/Format.h"

namespace plist {

namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

constexpr std::int64_t kSecondsInDay = 86'400;

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? std::string_view{}
                                           : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

template <typename Number, typename... How>
std::optional<Number> wholly(std::string_view text, How... how) {
    Number number{};
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number, how...);
    if (read.ec != std::errc{} || read.ptr != text.data() + text.size()) return {};
    return number;
}

std::int64_t secondsSince1970(const year_month_day& date) {
    return std::int64_t{sys_days{date}.time_since_epoch().count()} * kSecondsInDay;
}

}  // namespace

std::optional<value::Value> integerOf(std::string_view text) {
    text = trimmed(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    const auto magnitude = wholly<std::uint64_t>(text, hexadecimal ? 16 : 10);
    if (!magnitude) return {};
    constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (negative && *magnitude > kLargest + 1) return {};
    if (negative) return value::Value{static_cast<std::int64_t>(0 - *magnitude)};
    if (*magnitude > kLargest) return value::Value{*magnitude};
    return value::Value{static_cast<std::int64_t>(*magnitude)};
}

std::optional<double> realOf(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+')) text.remove_prefix(text.starts_with("+-") ? 0 : 1);
    if (text.find('(') != std::string_view::npos) return {};  // the payload of a NaN, which from_chars would take
    return wholly<double>(text);
}

std::optional<value::Date> dateOf(std::string_view text) {
    constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:ddZ";
    text = trimmed(text);
    if (text.size() != kForm.size()) return {};
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (kForm[i] == 'd' ? !digit : text[i] != kForm[i]) return {};
    }
    const auto number = [&](std::size_t at, std::size_t length) { return *wholly<unsigned>(text.substr(at, length)); };
    const year_month_day date{std::chrono::year{static_cast<int>(number(0, 4))}, std::chrono::month{number(5, 2)},
                              std::chrono::day{number(8, 2)}};
    const unsigned hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) return {};
    const std::int64_t seconds = secondsSince1970(date) + (std::int64_t{hour} * 60 + minute) * 60 + second;
    return value::Date{static_cast<double>(seconds)};
}

std::optional<value::Data> dataOf(std::string_view text) {
    value::Data data(BASE64_DECODE_LENGTH(text.size()));
    base64_decode_ctx context;
    ::base64_decode_init(&context);
    std::size_t size = data.size();
    const bool sound = ::base64_decode_update(&context, &size, reinterpret_cast<std::uint8_t*>(data.data()),
                                              text.size(), text.data()) == 1;
    if (!sound || ::base64_decode_final(&context) != 1) return {};
    data.resize(size);
    return data;
}

std::string textOf(double real) {
    std::array<char, 32> buffer;
    const auto written = std::to_chars(buffer.data(), buffer.data() + buffer.size(), real);
    return {buffer.data(), written.ptr};
}

std::optional<std::string> textOf(value::Date date) {
    using namespace std::chrono_literals;
    static const auto first = static_cast<double>(secondsSince1970(0y / 1 / 1));
    static const auto beyond = static_cast<double>(secondsSince1970(10000y / 1 / 1));
    if (!(date.seconds >= first && date.seconds < beyond)) return {};
    const auto seconds = static_cast<std::int64_t>(std::floor(date.seconds));
    const auto day = std::chrono::floor<days>(std::chrono::seconds{seconds});
    const year_month_day calendar{sys_days{day}};
    const auto time = seconds - std::int64_t{day.count()} * kSecondsInDay;
    return text::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", int{calendar.year()}, unsigned{calendar.month()},
                        unsigned{calendar.day()}, time / 3600, time / 60 % 60, time % 60);
}

std::string textOf(const value::Data& data) {
    std::string text(BASE64_ENCODE_RAW_LENGTH(data.size()), '\0');
    ::base64_encode_raw(text.data(), data.size(), reinterpret_cast<const std::uint8_t*>(data.data()));
    return text;
}

}  // namespace plist
