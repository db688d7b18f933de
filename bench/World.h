#pragma once

#include <cstddef>
#include <string>

namespace bench {

// A root directory of its own with installed applications, each with ten plug-ins of about 2 KB of Info.plist; removed
// when it goes. One plug-in in ten of each application serves the extension point "bench.point.one", so that 100 of
// 1,000 do.
class World {
public:
    explicit World(std::size_t plugIns);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const std::string& root() const { return root_; }
    std::size_t plugIns() const { return plugIns_; }

private:
    const std::string root_;
    const std::size_t plugIns_;
};

inline constexpr char kExtensionPoint[] = "bench.point.one";
inline constexpr std::size_t kPlugInsPerApplication = 10;

}  // namespace bench
