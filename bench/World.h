#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "platform/value/Value.h"

namespace bench {

// A root directory of its own with installed applications, each with ten plug-ins of about 2 KB of Info.plist; removed
// when it goes. One plug-in in ten of each application serves the extension point "bench.point.one", so that 100 of
// 1,000 do.
class World {
public:
    // Whether each plug-in demands kHostEntitlement of its hosts, and its application is rated kRating.
    enum class Demands { nothing, everything };

    explicit World(std::size_t plugIns, Demands demands = Demands::nothing);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const std::string& root() const { return root_; }
    std::size_t plugIns() const { return plugIns_; }

private:
    const std::string root_;
    const std::size_t plugIns_;
};

inline constexpr char kHostEntitlement[] = "bench.host";
inline constexpr int kRating = 12;
inline constexpr char kExtensionPoint[] = "bench.point.one";
inline constexpr std::size_t kPlugInsPerApplication = 10;

// Writes a property list, with the directories that it needs.
void writeList(const std::filesystem::path& path, const value::Value& value);

}  // namespace bench
