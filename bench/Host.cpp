#include "bench/Host.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "bench/MatchClient.h"
#include "bench/World.h"

namespace bench {

namespace {

constexpr std::string_view kAsHost = "--as-host";

}  // namespace

double microsecondsAMatchAsHost(const std::string& root, const value::Dictionary& entitlements, std::size_t expected) {
    namespace fs = std::filesystem;
    const fs::path bundle = fs::path{root} / "hosts/bench.app";
    writeList(bundle / "Info.plist",
              value::Dictionary{{"QFBundleIdentifier", "bench.host"}, {"QFBundleExecutable", "host"}});
    writeList(bundle / "Entitlements.plist", entitlements);
    for (const fs::path& path : {bundle, bundle / "Entitlements.plist"}) {
        fs::permissions(path, fs::perms::group_write | fs::perms::others_write, fs::perm_options::remove);
    }
    fs::copy_file("/proc/self/exe", bundle / "host", fs::copy_options::overwrite_existing);

    const std::string command =
        "'" + (bundle / "host").string() + "' " + std::string{kAsHost} + " " + std::to_string(expected);
    const std::unique_ptr<FILE, int (*)(FILE*)> output{popen(command.c_str(), "r"), pclose};
    double figure = 0;
    if (!output || std::fscanf(output.get(), "%lf", &figure) != 1) throw std::runtime_error("the host failed");
    return figure;
}

bool ranAsHost(int argc, char** argv) {
    if (argc != 3 || argv[1] != kAsHost) return false;
    std::printf("%.6f\n", microsecondsAMatch(std::strtoul(argv[2], nullptr, 10)));
    return true;
}

}  // namespace bench
