#include "platform/mounts/Mounts.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <mutex>
#include <set>
#include <string_view>
#include <vector>

#include "platform/file/File.h"
#include "platform/paths/Paths.h"

namespace mounts {

namespace {

constexpr std::size_t kMostBytes = std::size_t{16} << 20;  // of the list: a machine has some thousand mounts at most

struct Mount {
    std::string number;
    bool mayNeverAnswer = false;
};
using Table = std::map<std::string, Mount>;  // by mount point; what was mounted last hides what was before

bool isOfStrangers(std::string_view type) {
    constexpr std::string_view kKinds[] = {"fuse", "nfs",  "cifs",    "smb",    "9p",     "ceph",
                                           "afs",  "coda", "gluster", "lustre", "davfs2", "autofs"};
    return std::any_of(std::begin(kKinds), std::end(kKinds),
                       [type](std::string_view kind) { return type.starts_with(kind) && type != "fusectl"; });
}

// Blanks, newlines and backslashes are written as octal numbers.
std::string unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || text.size() - at < 4) {
            plain += text[at];
            continue;
        }
        plain += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
        at += 3;
    }
    return plain;
}

// number parent device root point options [fields] - type source options
void addLine(std::string_view line, Table& table) {
    std::vector<std::string_view> fields;
    while (!line.empty()) {
        const std::size_t end = std::min(line.find(' '), line.size());
        fields.push_back(line.substr(0, end));
        line.remove_prefix(std::min(end + 1, line.size()));
    }
    const auto dash = std::find(fields.begin() + std::min<std::ptrdiff_t>(6, std::ssize(fields)), fields.end(), "-");
    if (fields.end() - dash < 2) return;
    table.insert_or_assign(unescaped(fields[4]), Mount{std::string{fields[0]}, isOfStrangers(dash[1])});
}

const Mount* covering(const Table& table, std::string path) {
    for (;;) {
        if (const auto found = table.find(path); found != table.end()) return &found->second;
        if (path.size() <= 1) return nullptr;
        path.resize(std::max<std::size_t>(path.rfind('/'), 1));
    }
}

class List {
public:
    bool mayNeverAnswer(const std::string& path) {
        const std::lock_guard lock{mutex_};
        refresh();
        const auto isStrange = [this](const Mount& mount) {
            return mount.mayNeverAnswer && !reliedOn_.contains(mount.number);
        };
        const Mount* const around = covering(table_, path);
        if (around != nullptr && isStrange(*around)) return true;
        const std::string prefix = path + "/";
        for (auto at = table_.lower_bound(prefix); at != table_.end() && at->first.starts_with(prefix); ++at) {
            if (isStrange(at->second)) return true;
        }
        return false;
    }

private:
    // Under the lock. The kernel makes the open list readable as urgent data when it is no longer what was read.
    void refresh() {
        if (!file_) {
            file_ = file::UniqueFd{::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)};
            if (!file_) return;  // nothing is known, and nothing can be said against a path
        } else {
            pollfd changed{file_.get(), POLLPRI, 0};
            if (::poll(&changed, 1, 0) == 0) return;
        }
        std::string text;
        std::array<char, 16384> chunk;  // NOLINT(*-member-init): the kernel fills what is read
        ::lseek(file_.get(), 0, SEEK_SET);
        for (ssize_t got; text.size() < kMostBytes && (got = ::read(file_.get(), chunk.data(), chunk.size())) > 0;) {
            text.append(chunk.data(), static_cast<std::size_t>(got));
        }
        table_.clear();
        for (std::string_view rest = text; !rest.empty();) {
            const std::size_t end = std::min(rest.find('\n'), rest.size());
            addLine(rest.substr(0, end), table_);
            rest.remove_prefix(std::min(end + 1, rest.size()));
        }
        reliedOn_.clear();
        const paths::Directories& own = paths::directories();
        for (const std::string& directory : {own.runtime, own.state, own.config, own.userVolume, own.systemVolume}) {
            if (const Mount* const mount = covering(table_, file::canonicalPath(directory).value_or(directory)))
                reliedOn_.insert(mount->number);
        }
    }

    std::mutex mutex_;
    file::UniqueFd file_;
    Table table_;
    std::set<std::string> reliedOn_;  // by number
};

}  // namespace

bool mayNeverAnswer(const std::string& path) {
    static List& list = *new List;  // never destroyed: other threads may ask while the process ends
    return list.mayNeverAnswer(path);
}

}  // namespace mounts
