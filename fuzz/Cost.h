#pragma once

#include <cstddef>

namespace fuzz {

// What this process spends beside the thread that asks, which is the client's: what the daemon in it spends. One at a
// time, from one thread.
class Cost {
public:
    Cost();  // counts from now on

    // Finds out, from work of known effort, how many times longer this build takes on this machine than the release
    // build where a unit of effort is what it is meant to be. Before the first use; answers the factor.
    static double calibrate();

    // Of processor time, as that build would need.
    double milliseconds() const;

    // The most memory that was allocated at a time, beyond what there was at the beginning. Counted with the address
    // sanitizer, which tells of each allocation; else nothing.
    std::ptrdiff_t peakBytes() const;

private:
    const double startedAt_;
};

}  // namespace fuzz
