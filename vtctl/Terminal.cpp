#include "vtctl/Terminal.h"

#include <algorithm>
#include <iostream>

#include "platform/logging/Escape.h"

namespace terminal {

namespace {

// Characters, as far as one column each: the continuation bytes of UTF-8 take none.
std::size_t width(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

bool isOrdinary(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view{"._/=:-+,@%"}.find(c) != std::string_view::npos;
}

}  // namespace

std::string shown(std::string_view text) {
    std::string result;
    logging::appendEscaped(result, text);
    return result;
}

std::string shownOrDash(std::optional<std::string_view> text) {
    return text && !text->empty() ? shown(*text) : "-";
}

std::string quoted(std::string_view text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), isOrdinary)) return std::string{text};
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'') {
            result += "'\\''";
        } else {
            result += c;
        }
    }
    return shown(result + '\'');
}

void complain(std::string_view message) {
    while (true) {
        const std::size_t end = std::min(message.find('\n'), message.size());
        std::cerr << "vtctl: " << shown(message.substr(0, end)) << "\n";
        if (end == message.size()) return;
        message.remove_prefix(end + 1);
    }
}

void printTable(const std::vector<std::vector<std::string>>& rows, std::ostream& stream, std::string_view indent) {
    std::vector<std::size_t> widths;
    for (const std::vector<std::string>& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    }
    for (const std::vector<std::string>& row : rows) {
        stream << indent;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const bool last = i + 1 == row.size();
            stream << row[i] << (last ? "\n" : std::string(widths[i] - width(row[i]) + 2, ' '));
        }
    }
}

}  // namespace terminal
