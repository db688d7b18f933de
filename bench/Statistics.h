#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

// The value below which the share of the samples lies; 0.5 is the median.
inline double percentile(std::vector<double> samples, double share) {
    if (samples.empty()) return 0;
    const auto index = static_cast<std::size_t>(share * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
    return samples[index];
}

inline double median(std::vector<double> samples) {
    return percentile(std::move(samples), 0.5);
}

}  // namespace bench
