#pragma once

#include <string>
#include <unordered_set>
#include <utility>

namespace dravo {

// The plug-ins' data containers, `containers/<encoded identifier>/` with `tmp/` inside, each 0700. They stay when their
// plug-in goes: another copy of it may share the container, and the data is the user's. Belongs to one queue.
class DataContainers {
public:
    explicit DataContainers(std::string root) : root_{std::move(root)} {}

    // Makes the container when it is missing. False when that cannot be done; the first failure is logged.
    bool ensure(const std::string& identifier);

    // For a time in which thousands are ensured: what is there is listed once, so that the kernel is not asked for
    // each.
    void list();
    void dropListing() { listed_.clear(); }

private:
    const std::string root_;
    std::unordered_set<std::string> listed_;
    bool complained_ = false;
};

// Makes the container when it is missing; an errno when that cannot be done. Any thread.
[[nodiscard]] int makeDataContainer(const std::string& root, const std::string& identifier);

// Where the container of the identifier lies.
std::string dataContainerPath(const std::string& root, const std::string& identifier);

}  // namespace dravo
