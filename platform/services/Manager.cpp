#include "platform/services/Manager.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/file/File.h"
#include "platform/logging/Log.h"
#include "platform/mox/PeerIdentity.h"
#include "platform/paths/Paths.h"
#include "platform/text/Format.h"

namespace services {

namespace {

namespace fs = std::filesystem;

// The number that is the whole of a name; 0 for every other name.
pid_t pidNamed(std::string_view name) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
    return error == std::errc{} && end == name.data() + name.size() && pid > 0 ? pid : 0;
}

bool isAlive(const file::UniqueFd& process) {
    pollfd ended{process.get(), POLLIN, 0};
    return ::poll(&ended, 1, 0) == 0;
}

// The names in a directory; none when it cannot be read.
std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry{directory, error}, end; !error && entry != end; entry.increment(error)) {
        names.push_back(entry->path().filename());
    }
    return names;
}

// Itself, not what a link leads to: nothing is written or removed elsewhere.
bool isDirectory(const std::string& path) {
    std::error_code error;
    return fs::symlink_status(path, error).type() == fs::file_type::directory;
}

int errorNumber(const value::Error& error) {
    return error.domain == "posix" ? static_cast<int>(error.code) : EINVAL;
}

// What the bundle around an executable says about it; nothing when it is not the executable that its bundle names.
std::optional<Registration> describe(const std::string& executable, const bundle::Bundle& bundle) {
    Registration registration;
    registration.executable = executable;
    const auto info = bundle.infoDictionary();
    if (!info || bundle.executablePath() != executable) return {};
    registration.identifier = bundle::identifierOf(*info);
    registration.version = bundle::versionOf(*info);
    return registration;
}

}  // namespace

const std::shared_ptr<Manager>& Manager::shared() {
    // Never destroyed: requests may still be served while the process ends.
    static const auto& manager = *new std::shared_ptr<Manager>{open(paths::directories().runtime + "/services")};
    return manager;
}

std::shared_ptr<Manager> Manager::open(std::string directory) {
    std::shared_ptr<Manager> manager{new Manager{std::move(directory)}};
    manager->queue_->sync([&] { manager->takeOver(); });
    return manager;
}

Manager::Manager(std::string directory) : directory_{std::move(directory)} {}

int Manager::add(pid_t host, const std::string& executable, const mox::Dictionary& overlay) {
    const std::string directory = executable.substr(0, executable.rfind('/'));
    return add(host, executable, *bundle::Bundle::open(directory, bundle::PathKind::directory), overlay);
}

int Manager::add(pid_t host, const std::string& executable, const bundle::Bundle& bundle,
                 const mox::Dictionary& overlay) {
    auto registration = describe(executable, bundle);
    if (!registration) return ENOEXEC;
    registration->overlay = *overlay.toObject().view().toValue().dictionary();
    return queue_->sync([&] {
        const auto found = hostFor(host);
        if (!found) return errorNumber(found.error());
        const int error = registerFor(host, **found, *std::move(registration));
        if ((*found)->registered.empty()) forget(host);
        return error;
    });
}

void Manager::remove(Service service, std::shared_ptr<queue::SerialQueue> queue, Answer answer) {
    queue_->async([self = shared_from_this(), service = std::move(service), queue = std::move(queue),
                   answer = std::move(answer)] {
        const int result = self->removeNow(service);
        queue->async([answer, result] { answer(result); });
    });
}

// --- Hosts

// The host's entry, made when there is none.
value::Result<Manager::Host*> Manager::hostFor(pid_t pid) {
    Host host;
    host.process = file::UniqueFd{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))};
    if (!host.process) return value::posixError(errno, text::format("process {}", pid));
    host.startTime = mox::startTimeOf(pid);
    if (host.startTime == 0 || !isAlive(host.process)) return value::posixError(ESRCH, text::format("process {}", pid));

    if (const auto known = hosts_.find(pid); known != hosts_.end()) {
        if (known->second.startTime == host.startTime) return &known->second;
        forget(pid);  // its end is still to be reported
    }
    if (hosts_.size() >= kMostHosts) return value::posixError(EDQUOT, "hosts");
    host.watch = queue::watch(host.process.get(), queue_,
                              [weak = weak_from_this(), pid, startTime = host.startTime](std::uint32_t) {
                                  if (const auto self = weak.lock()) self->endedMaybe(pid, startTime);
                              });
    if (!host.watch) return value::posixError(errno, text::format("process {}", pid));
    return &hosts_.emplace(pid, std::move(host)).first->second;
}

void Manager::endedMaybe(pid_t pid, std::uint64_t startTime) {
    const auto found = hosts_.find(pid);
    const bool ended = found != hosts_.end() && found->second.startTime == startTime && !isAlive(found->second.process);
    if (ended) forget(pid);
}

// Removes the directory with whatever is in it, pieces of a write that a kill cut short among it.
void Manager::forget(pid_t pid) {
    hosts_.erase(pid);
    std::error_code error;
    fs::remove_all(directoryOf(pid), error);
    if (error) {
        logging::warning(
            text::format("the services registered for process {} cannot be withdrawn: {}", pid, error.message()));
    }
}

std::string Manager::directoryOf(pid_t pid) const {
    return text::format("{}/{}", directory_, pid);
}

// --- Registrations

int Manager::registerFor(pid_t pid, Host& host, Registration registration) {
    registration.host = pid;
    registration.startTime = host.startTime;
    const std::string bundlePath = bundlePathOf(registration);
    const auto former = host.registered.find(bundlePath);
    if (former == host.registered.end() && host.registered.size() >= kMostRegistrations) return EDQUOT;

    std::set<std::string_view> taken;
    for (const auto& [path, entry] : host.registered) {
        if (path != bundlePath) taken.insert(entry.fileName);
    }
    std::size_t number = 1;
    std::string name = fileName(registration, number);
    while (taken.count(name) != 0) name = fileName(registration, ++number);

    const auto content = encode(registration);
    if (!content) return errorNumber(content.error());
    const std::string directory = directoryOf(pid);
    if (const auto error = file::makeDirectories(directory, 0700)) return errorNumber(*error);
    if (!isDirectory(directory_) || !isDirectory(directory)) return ENOTDIR;
    if (const auto error = file::writeAtomically(directory + '/' + name, *content)) return errorNumber(*error);
    if (former != host.registered.end() && former->second.fileName != name) {
        ::unlink((directory + '/' + former->second.fileName).c_str());  // the bundle has another version by now
    }
    host.registered.insert_or_assign(bundlePath, Entry{registration.identifier, registration.version, std::move(name)});
    return 0;
}

int Manager::removeNow(const Service& service) {
    int result = kNotRegistered;
    std::vector<pid_t> empty;
    for (auto& [pid, host] : hosts_) {
        for (auto at = host.registered.begin(); at != host.registered.end();) {
            const Entry& entry = at->second;
            // What lies at the path may say otherwise by now than when it was registered, or than the registry knows.
            const bool meant = service.bundlePath.empty()
                                   ? entry.identifier == service.identifier && entry.version == service.version
                                   : at->first == service.bundlePath;
            if (!meant) {
                ++at;
            } else if (::unlink((directoryOf(pid) + '/' + entry.fileName).c_str()) == 0 || errno == ENOENT) {
                if (result == kNotRegistered) result = 0;
                at = host.registered.erase(at);
            } else {
                result = errno;
                ++at;
            }
        }
        if (host.registered.empty()) empty.push_back(pid);
    }
    for (const pid_t pid : empty) forget(pid);
    return result;
}

// --- What an earlier run left behind

void Manager::takeOver() {
    if (!isDirectory(directory_)) return;
    for (const std::string& name : namesIn(directory_)) {
        const pid_t pid = pidNamed(name);
        if (pid > 0 && std::to_string(pid) == name) takeOver(pid, directoryOf(pid));
    }
}

void Manager::takeOver(pid_t pid, const std::string& directory) {
    const auto found = hostFor(pid);
    if (!found || !isDirectory(directory)) return forget(pid);
    Host& host = **found;
    for (const std::string& name : namesIn(directory)) {
        const std::string path = directory + '/' + name;
        const auto contents = file::readRegular(path, kMostBytes, file::FinalLink::refused);
        const auto registration = contents ? decode(contents->bytes) : std::nullopt;
        const bool valid = registration && name.ends_with(kFileSuffix) && registration->host == pid &&
                           registration->startTime == host.startTime && host.registered.size() < kMostRegistrations;
        if (!valid ||
            !host.registered
                 .emplace(bundlePathOf(*registration), Entry{registration->identifier, registration->version, name})
                 .second) {
            std::error_code
                ignored;  // what cannot be removed names another host, or none: nobody starts anything by it
            fs::remove_all(path, ignored);
        }
    }
    if (host.registered.empty()) forget(pid);
}

}  // namespace services
