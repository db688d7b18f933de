#include "platform/mounts/Mounts.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
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
        const Mount* const around = covering(table_, path);
        if (around != nullptr && isStrange(*around)) return true;
        const std::string prefix = path + "/";
        for (auto at = table_.lower_bound(prefix); at != table_.end() && at->first.starts_with(prefix); ++at) {
            if (isStrange(at->second)) return true;
        }
        return false;
    }

    // The mount of that number does; one that is not on the list may not.
    bool answers(std::uint64_t number) {
        const std::lock_guard lock{mutex_};
        refresh();
        const std::string text = std::to_string(number);
        return std::any_of(table_.begin(), table_.end(),
                           [&](const auto& entry) { return entry.second.number == text && !isStrange(entry.second); });
    }

private:
    bool isStrange(const Mount& mount) const { return mount.mayNeverAnswer && !reliedOn_.contains(mount.number); }

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

List& shared() {
    static List& list = *new List;  // never destroyed: other threads may ask while the process ends
    return list;
}

std::optional<std::string> failed(int errorNumber) {
    errno = errorNumber;
    return {};
}

// What is taken from the front of a path's text: a name, and the slashes behind it. Behind a last name that only a
// directory may have, one is left that only a directory has.
std::string takeName(std::string& path) {
    const std::size_t end = std::min(path.find('/'), path.size());
    std::string name = path.substr(0, end);
    const std::size_t next = std::min(path.find_first_not_of('/', end), path.size());
    path.erase(0, next);
    if (path.empty() && next > end) path = ".";
    return name;
}

// Where a link leads. Those of /proc that lead into other processes' trees are none.
std::optional<std::string> targetOf(int link) {
    std::array<char, PATH_MAX> text;  // NOLINT(*-member-init): the kernel fills what is read
    const ssize_t length = ::readlinkat(link, "", text.data(), text.size());
    if (length < 0) return {};
    std::string target{text.data(), static_cast<std::size_t>(length)};
    struct statfs system {};
    const bool isMagic = target.starts_with('/') && ::fstatfs(link, &system) == 0 && system.f_type == PROC_SUPER_MAGIC;
    return isMagic ? failed(ELOOP) : std::optional{std::move(target)};
}

}  // namespace

bool mayNeverAnswer(const std::string& path) {
    return shared().mayNeverAnswer(path);
}

std::optional<std::string> canonicalPathWhereAnswered(const std::string& path) {
    constexpr int kMostLinks = 40;  // the kernel's own bounds
    if (path.find('\0') != std::string::npos) return failed(EINVAL);
    if (path.size() >= PATH_MAX) return failed(ENAMETOOLONG);
    if (path.empty()) return failed(ENOENT);
    const auto open = [](int directory, const std::string& name) {
        return file::UniqueFd{::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
    };
    file::UniqueFd at = open(AT_FDCWD, path.starts_with('/') ? "/" : ".");
    int links = 0;
    for (std::string rest = path; at && !rest.empty();) {
        const std::string name = takeName(rest);
        if (name.empty()) continue;
        file::UniqueFd next = open(at.get(), name);
        if (!next) return {};
        // Which mount it is on the kernel knows by itself, and neither that nor opening it so asks the file system.
        struct statx status {};
        if (::statx(next.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE | STATX_MNT_ID, &status) != 0)
            return {};
        if ((status.stx_mask & STATX_MNT_ID) == 0 || !shared().answers(status.stx_mnt_id)) return failed(ETIMEDOUT);
        if (!S_ISLNK(status.stx_mode)) {
            at = std::move(next);
            continue;
        }
        const auto target = ++links > kMostLinks ? failed(ELOOP) : targetOf(next.get());
        if (!target) return {};
        if (target->starts_with('/')) at = open(AT_FDCWD, "/");
        if (!rest.empty()) rest.insert(0, "/");
        rest.insert(0, *target);
        if (rest.size() >= PATH_MAX) return failed(ENAMETOOLONG);
    }
    return at ? file::pathOf(at) : std::nullopt;
}

}  // namespace mounts
