#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace rules {

// What one request's patterns are to be complained of: each pattern once, with the number of times, when the request is
// over. Of more than a few different ones only the number is told.
//
// Belongs to one request, and to one thread.
class Complaints {
public:
    Complaints() = default;
    Complaints(const Complaints&) = delete;
    Complaints& operator=(const Complaints&) = delete;
    ~Complaints() { write(); }

    // Writes them to the log, before the request is answered; they are then forgotten.
    void write();

    // Forgets them: somebody else tells of the same patterns.
    void discard();

    // The pattern has an unknown operator, and was held against a value so many times.
    void addUnknownOperator(std::string_view pattern, std::uint64_t times);

private:
    struct Unknown {
        std::string pattern;  // cut, when it is long
        std::size_t hash;
        std::uint64_t times;
    };

    std::vector<Unknown> unknown_;
    std::uint64_t further_ = 0;  // evaluations of others
};

}  // namespace rules
