#include "vtctl/verify/Findings.h"

#include <charconv>
#include <cstdio>
#include <string_view>
#include <utility>

#include "platform/file/File.h"
#include "platform/plist/Plist.h"
#include "platform/text/Format.h"
#include "vtctl/Nearest.h"

namespace verify {

namespace {

std::string textOf(const plist::Path& path) {
    std::string text;
    for (const std::string& step : path) text += (text.empty() ? "" : ".") + step;
    return text;
}

// Where the reader says that it stopped.
plist::Place placeIn(std::string_view message) {
    constexpr std::string_view kLine = "line ", kColumn = "column ";
    const auto numberBehind = [&](std::string_view word) {
        std::size_t number = 0;
        const std::size_t at = message.rfind(word);
        if (at == std::string_view::npos) return number;
        std::from_chars(message.data() + at + word.size(), message.data() + message.size(), number);
        return number;
    };
    return {numberBehind(kLine), numberBehind(kColumn)};
}

}  // namespace

plist::Path operator/(plist::Path path, std::string step) {
    path.push_back(std::move(step));
    return path;
}

std::optional<value::Dictionary> Findings::read(std::size_t mostBytes, std::size_t mostValues) {
    const auto contents = file::readRegular(file_, mostBytes, file::FinalLink::refused);
    if (!contents) {
        add(Rule::unreadable, {}, {contents.error().localizedDescription()});
        return {};
    }
    const auto list = plist::read(contents->bytes, {.bytes = mostBytes, .values = mostValues});
    if (!list) {
        const std::string why = list.error().localizedDescription();
        add(Rule::malformed, {}, {why});
        problems_.back().place = placeIn(why);
        return {};
    }
    places_ = plist::Places{contents->bytes};
    if (list->dictionary() != nullptr) return *list->dictionary();
    add(Rule::noDictionary, {}, {"is " + kindOf(*list) + "; a dictionary is wanted", {}, "dictionary"});
    return {};
}

void Findings::add(Rule rule, const plist::Path& key, Words words) {
    const RuleText& text = verify::textOf(rule);
    auto place = places_.of(key);
    // What is missing is told where it is to be added.
    for (plist::Path around = key; !place && !around.empty();) {
        around.pop_back();
        place = places_.of(around);
    }
    problems_.push_back({rule, text.severity, file_, place.value_or(plist::Place{}), textOf(key),
                         words.what.empty() ? text.meaning : std::move(words.what), std::move(words.expected),
                         words.remedy.empty() ? text.remedy : std::move(words.remedy)});
}

void Findings::addAt(const std::string& otherFile, Rule rule, Words words) {
    Findings{otherFile, problems_}.add(rule, {}, std::move(words));
}

void Findings::judgeKeys(const value::Dictionary& dictionary, Level level, const plist::Path& above,
                         std::initializer_list<Level> elsewhere) {
    const auto known = namesAt(level);
    for (const auto& [name, content] : dictionary) {
        if (const Key* key = findKey(level, name)) {
            const bool isRead = key->kinds == kAny || (bitOf(content) & key->kinds) != 0;
            const std::string wanted = kindsOf(*key);
            if (key->kinds == kNone) {
                add(Rule::forbiddenKey, above / name, {});
            } else if (!isRead) {
                add(key->ifWrong == Severity::fault ? Rule::wrongKind : Rule::oddKind, above / name,
                    {text::format("is {}; a {} is wanted", kindOf(content), wanted), {}, wanted});
            }
            continue;
        }
        bool isMisplaced = false;
        for (const Level other : elsewhere) {
            isMisplaced = findKey(other, name) != nullptr;
            if (!isMisplaced) continue;
            add(Rule::misplacedKey, above / name,
                {text::format("nobody reads this key here, but in {}", nameOf(other)),
                 text::format("move it to {}", nameOf(other))});
            break;
        }
        const auto meant = isMisplaced ? std::nullopt : nearest::to(name, known);
        if (!meant || dictionary.contains(*meant)) continue;
        add(Rule::misspeltKey, above / name,
            {text::format("nobody reads this key; {} is read", *meant), text::format("rename it to {}", *meant),
             *meant});
    }
}

}  // namespace verify
