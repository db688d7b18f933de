#include "platform/types/TypeHierarchy.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "platform/plist/Plist.h"
#include "platform/types/TypeGraph.h"

namespace types {

namespace {

constexpr std::size_t kLimit = std::size_t{4} << 20;  // the largest real one is some 30 KB
constexpr std::int64_t kLookInterval = 20'000'000;    // nanoseconds

enum class Content { declarations, subclasses, aliases };

struct Source {
    std::string path;
    Content content;
    friend bool operator==(const Source&, const Source&) = default;
};

// A variable as the base directory rules have it: an empty one is an unset one.
std::string environment(const char* name, std::string otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr || *text == '\0' ? std::move(otherwise) : text;
}

std::vector<Source> sources() {
    const paths::Directories& directories = paths::directories();
    std::string list = "/usr/local/share:/usr/share";
    if (!directories.privateRoot) {
        list = environment("XDG_DATA_HOME", environment("HOME", "") + "/.local/share") + ':' +
               environment("XDG_DATA_DIRS", list);
    }
    std::vector<Source> result{{directories.systemVolume + "/Types.plist", Content::declarations}};
    for (std::size_t start = 0; start <= list.size();) {
        const std::size_t end = std::min(list.find(':', start), list.size());
        const std::string directory = list.substr(start, end - start);
        start = end + 1;
        if (!directory.starts_with('/')) continue;
        result.push_back({directory + "/mime/subclasses", Content::subclasses});
        result.push_back({directory + "/mime/aliases", Content::aliases});
    }
    return result;
}

// Adds what one source declares; the answer is what is wrong with it, if anything.
std::optional<std::string> addTo(TypeGraph& graph, const Source& source) {
    const auto contents = file::readRegular(source.path, kLimit);
    if (!contents) {
        if (contents.error().code == ENOENT) return {};
        return contents.error().localizedDescription();
    }
    if (source.content == Content::subclasses) {
        graph.addSubclasses(contents->bytes);
    } else if (source.content == Content::aliases) {
        graph.addAliases(contents->bytes);
    } else {
        const auto list = plist::read(contents->bytes);
        if (!list) return source.path + ": " + list.error().localizedDescription();
        const value::Dictionary* declarations = list->dictionary();
        if (declarations == nullptr) return source.path + ": not a dictionary";
        graph.addDeclarations(*declarations);
    }
    return {};
}

// One reading of all sources.
struct Hierarchy {
    std::vector<Source> from;
    std::vector<std::optional<file::Stamp>> stamps;  // one a source, as before it was read
    bool settled = true;                             // whether unchanged stamps prove unchanged content
    std::vector<std::string> faults;
    TypeGraph graph;
};

std::vector<std::optional<file::Stamp>> stampsOf(const std::vector<Source>& sources) {
    std::vector<std::optional<file::Stamp>> stamps;
    stamps.reserve(sources.size());
    for (const Source& source : sources) stamps.push_back(file::stampOf(source.path));
    return stamps;
}

std::shared_ptr<const Hierarchy> read(std::vector<Source> from, std::vector<std::optional<file::Stamp>> stamps) {
    auto hierarchy = std::make_shared<Hierarchy>();
    for (const auto& stamp : stamps) hierarchy->settled = hierarchy->settled && (!stamp || file::settled(*stamp));
    for (const Source& source : from) {
        if (auto fault = addTo(hierarchy->graph, source)) hierarchy->faults.push_back(std::move(*fault));
    }
    hierarchy->from = std::move(from);
    hierarchy->stamps = std::move(stamps);
    return hierarchy;
}

std::int64_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// The last reading, and when the files were last looked at.
class Current {
public:
    std::shared_ptr<const Hierarchy> get() {
        const std::int64_t now = monotonicNanoseconds();
        const std::lock_guard lock{mutex_};
        if (hierarchy_ && now - looked_ < kLookInterval) return hierarchy_;
        looked_ = now;
        auto from = sources();
        auto stamps = stampsOf(from);
        const bool unchanged = hierarchy_ && hierarchy_->from == from && hierarchy_->stamps == stamps;
        if (unchanged && hierarchy_->settled) return hierarchy_;
        hierarchy_ = read(std::move(from), std::move(stamps));
        if (unchanged) return hierarchy_;
        for (const std::string& fault : hierarchy_->faults) logging::error("types not read, " + fault);
        return hierarchy_;
    }

private:
    std::mutex mutex_;
    std::int64_t looked_ = 0;
    std::shared_ptr<const Hierarchy> hierarchy_;
};

std::shared_ptr<const Hierarchy> current() {
    static Current& readings = *new Current;  // never destroyed: queues may still ask while the process ends
    return readings.get();
}

}  // namespace

bool conforms(std::string_view a, std::string_view b) {
    return a == b || current()->graph.conforms(a, b);
}

void forEachSupertype(std::string_view type, const std::function<void(std::string_view)>& visit) {
    current()->graph.forEachSupertype(type, visit);
}

}  // namespace types
