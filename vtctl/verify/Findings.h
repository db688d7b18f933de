#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/plist/Places.h"
#include "platform/value/Value.h"
#include "vtctl/verify/Keys.h"
#include "vtctl/verify/Rules.h"

namespace verify {

// Texts are as they stand in the files: terminal::shown() is for printing them.
struct Problem {
    Rule rule;
    Severity severity;
    std::string file;    // absolute
    plist::Place place;  // line 0: not known, as in a binary list and of what is missing
    std::string key;     // a path with dots; empty: the file as a whole
    std::string what;
    std::string expected;  // empty: what is wrong says it
    std::string remedy;
};

using Problems = std::vector<Problem>;

// What is found in one file.
class Findings {
public:
    Findings(std::string file, Problems& problems) : file_{std::move(file)}, problems_{problems} {}

    const std::string& file() const { return file_; }

    // The dictionary that the file holds. Of what keeps it from being read, one problem is told, and nothing is
    // answered. Places are known from then on.
    std::optional<value::Dictionary> read(std::size_t mostBytes, std::size_t mostValues);

    struct Words {
        std::string what = {};  // empty: the rule's meaning
        std::string remedy = {};
        std::string expected = {};
    };
    void add(Rule rule, const plist::Path& key, Words words);
    void addAt(const std::string& otherFile, Rule rule, Words words);

    // Judges the keys of a dictionary at that path: kinds, and names that are almost those that are read. Of the keys
    // that other dictionaries around have, those of `elsewhere` are told, too.
    void judgeKeys(const value::Dictionary& dictionary, Level level, const plist::Path& above,
                   std::initializer_list<Level> elsewhere = {});

private:
    const std::string file_;
    Problems& problems_;
    plist::Places places_;
};

plist::Path operator/(plist::Path path, std::string step);

}  // namespace verify
