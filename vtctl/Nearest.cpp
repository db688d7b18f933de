#include "vtctl/Nearest.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <vector>

namespace nearest {

namespace {

constexpr std::size_t kLongest = 256;  // a name that is longer is nobody's misspelling

char lower(char c) {
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

// How many characters are to be changed, added or left out; two that changed places count as one.
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> last(other.size() + 1), row(other.size() + 1), next(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < one.size(); ++i) {
        next[0] = i + 1;
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t cost = lower(one[i]) == lower(other[j]) ? 0 : 1;
            next[j + 1] = std::min({row[j + 1] + 1, next[j] + 1, row[j] + cost});
            const bool isSwapped =
                i > 0 && j > 0 && lower(one[i]) == lower(other[j - 1]) && lower(one[i - 1]) == lower(other[j]);
            if (isSwapped) next[j + 1] = std::min(next[j + 1], last[j - 1] + 1);
        }
        last.swap(row);
        row.swap(next);
    }
    return row[other.size()];
}

}  // namespace

std::optional<std::string> to(const std::string& name, const std::set<std::string>& names) {
    std::optional<std::string> found;
    if (name.size() > kLongest) return found;
    std::size_t least = std::max<std::size_t>(name.size() / 3, 1) + 1;
    for (const std::string& candidate : names) {
        if (candidate.size() > kLongest) continue;
        const std::size_t steps = distance(name, candidate);
        if (steps >= least) continue;
        least = steps;
        found = candidate;
    }
    return found;
}

}  // namespace nearest
