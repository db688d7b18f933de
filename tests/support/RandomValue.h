#pragma once

#include <random>
#include <string>

#include "platform/value/Value.h"

namespace support {

// Property-list values of every kind, some odd: for properties that must hold for all of them.
class RandomValue {
public:
    explicit RandomValue(unsigned seed) : random_{seed} {}

    value::Value operator()(int depth = 0) {
        switch (below(depth < 4 ? 9 : 7)) {
            case 0: return below(2) == 1;
            case 1: return static_cast<std::int64_t>(random_());
            case 2: return random_() | 1ULL << 63;  // only an unsigned integer can hold it
            case 3: return static_cast<double>(static_cast<std::int64_t>(random_())) / 1024;
            case 4: return text();
            case 5: return value::Data(below(40), static_cast<std::byte>(below(256)));
            case 6: return value::Date{static_cast<double>(below(2'000'000'000))};
            case 7: {
                value::Array::Storage elements;
                for (auto left = below(5); left > 0; --left) elements.push_back((*this)(depth + 1));
                return value::Array{std::move(elements)};
            }
            default: {
                value::Dictionary::Builder entries;
                for (auto left = below(6); left > 0; --left) entries.set(text(), (*this)(depth + 1));
                return std::move(entries).build();
            }
        }
    }

private:
    std::size_t below(std::size_t bound) { return random_() % bound; }
    std::string text() {
        static const char* const pieces[] = {"a", "KX", " ", "\xC3\xA9", "<&>", "\xF0\x9F\x98\x80", "0", "\t"};
        std::string result;
        for (auto left = below(8); left > 0; --left) result += pieces[below(std::size(pieces))];
        return result;
    }

    std::mt19937_64 random_;
};

}  // namespace support
