#include "platform/services/Manager.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
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

constexpr std::chrono::minutes kPayAgain{1};

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

Manager::Manager(std::string directory)
    : directory_{std::move(directory)}, discards_{std::make_shared<Discards>(directory_ + "/.discarded")} {}

int Manager::add(pid_t host, const PlugIn& plugIn, const std::string& executable, const bundle::Bundle& bundle,
                 const mox::Dictionary& overlay) {
    auto registration = describe(executable, bundle);
    if (!registration) return ENOEXEC;
    registration->plugIn = plugIn.identifier;
    registration->uuid = plugIn.uuid;
    registration->overlay = *overlay.toObject().view().toValue().dictionary();
    return queue_->sync([&] {
        payDebts();
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
        self->payDebts();
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

void Manager::forget(pid_t pid) {
    const auto host = hosts_.find(pid);
    if (host != hosts_.end()) {
        for (const auto& [key, entry] : host->second.registered) {
            ::unlink((directoryOf(pid) + '/' + entry.fileName).c_str());  // what stays goes with the directory
            const auto hosts = hostsOf_.find(key.first);
            if (hosts == hostsOf_.end()) continue;  // another plug-in of the bundle came before
            hosts->second.erase(pid);
            if (hosts->second.empty()) hostsOf_.erase(hosts);
        }
        hosts_.erase(host);
    }
    dropDirectory(pid);
}

// Removes the directory with whatever is in it, pieces of a write that a kill cut short among it.
void Manager::dropDirectory(pid_t pid) {
    const int error = discards_->discard(directoryOf(pid));
    if (error == 0) return;
    if (owed_.count(pid) == 0) {
        logging::warning(
            text::format("the services registered for process {} cannot be withdrawn: {}", pid, std::strerror(error)));
    }
    owe(pid);
}

// --- What could not be removed

void Manager::owe(pid_t pid) {
    owed_.insert(pid);
    if (debtTimer_) return;
    debtTimer_ = queue::after(kPayAgain, queue_, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self) return;
        self->debtTimer_.reset();
        self->payDebts();
    });
}

void Manager::payDebts() {
    for (const pid_t pid : std::exchange(owed_, {})) {
        const auto found = hosts_.find(pid);
        if (found == hosts_.end()) {
            dropDirectory(pid);
            continue;
        }
        auto& registered = found->second.registered;
        for (auto at = registered.begin(); at != registered.end();) {
            const bool isGone = at->second.isOwed && unlinkEntry(pid, at->second) == 0;
            at = isGone ? registered.erase(at) : std::next(at);
        }
        if (registered.empty()) forget(pid);
    }
    if (owed_.empty()) debtTimer_.reset();
}

std::string Manager::directoryOf(pid_t pid) const {
    return text::format("{}/{}", directory_, pid);
}

// --- Registrations

int Manager::registerFor(pid_t pid, Host& host, Registration registration) {
    registration.host = pid;
    registration.startTime = host.startTime;
    registration.boot = bootIdentifier();
    const Key key{bundlePathOf(registration), registration.uuid};
    const auto former = host.registered.find(key);
    if (former == host.registered.end() && host.registered.size() >= kMostRegistrations) return EDQUOT;

    std::set<std::string_view> taken;
    for (const auto& [other, entry] : host.registered) {
        if (other != key) taken.insert(entry.fileName);
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
    host.registered.insert_or_assign(key, Entry{registration.identifier, registration.version, std::move(name)});
    hostsOf_[key.first].insert(pid);
    return 0;
}

int Manager::removeNow(const Service& service) {
    std::vector<pid_t> concerned;
    if (service.bundlePath.empty()) {
        for (const auto& [pid, host] : hosts_) concerned.push_back(pid);
    } else if (const auto found = hostsOf_.find(service.bundlePath); found != hostsOf_.end()) {
        concerned.assign(found->second.begin(), found->second.end());
    }
    int result = kNotRegistered;
    for (const pid_t pid : concerned) {
        const int withdrawn = withdraw(pid, service);
        if (withdrawn == kNotRegistered) continue;
        if (withdrawn != 0 || result == kNotRegistered) result = withdrawn;
    }
    return result;
}

// What lies at a bundle's path may say otherwise by now than when it was registered, or than the registry knows: where
// there is a path it alone counts.
int Manager::withdraw(pid_t pid, const Service& service) {
    Host& host = hosts_.at(pid);
    int result = kNotRegistered;
    bool anyLeft = false;
    for (auto at = host.registered.begin(); at != host.registered.end();) {
        Entry& entry = at->second;
        const bool meant = service.bundlePath.empty()
                               ? entry.identifier == service.identifier && entry.version == service.version
                               : at->first.first == service.bundlePath;
        const int error = meant ? unlinkEntry(pid, entry) : 0;
        if (meant && (error != 0 || result == kNotRegistered)) result = error;
        const bool stays = !meant || error != 0;
        anyLeft = anyLeft || (stays && at->first.first == service.bundlePath);
        at = stays ? std::next(at) : host.registered.erase(at);
    }
    if (host.registered.empty()) {
        forget(pid);
    }
    if (const auto hosts = hostsOf_.find(service.bundlePath); hosts != hostsOf_.end() && !anyLeft) {
        hosts->second.erase(pid);
        if (hosts->second.empty()) hostsOf_.erase(hosts);
    }
    return result;
}

// 0 when its file is gone, else an error number, and it is owed.
int Manager::unlinkEntry(pid_t pid, Entry& entry) {
    if (::unlink((directoryOf(pid) + '/' + entry.fileName).c_str()) == 0 || errno == ENOENT) return 0;
    const int error = errno;
    entry.isOwed = true;
    owe(pid);
    return error;
}

// --- What an earlier run left behind

void Manager::takeOver() {
    if (!isDirectory(directory_)) return;
    for (const std::string& name : namesIn(directory_)) {
        const pid_t pid = pidNamed(name);
        if (pid > 0 && std::to_string(pid) == name) takeOver(pid, directoryOf(pid));
    }
    discards_->removeLater();  // what an earlier run did not come to
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
                           registration->startTime == host.startTime && registration->boot == bootIdentifier() &&
                           host.registered.size() < kMostRegistrations;
        const bool isFirst = valid && host.registered
                                          .emplace(Key{bundlePathOf(*registration), registration->uuid},
                                                   Entry{registration->identifier, registration->version, name})
                                          .second;
        if (isFirst) {
            hostsOf_[bundlePathOf(*registration)].insert(pid);
        } else {
            // What cannot be removed names another host, or none: nobody starts anything by it.
            static_cast<void>(discards_->discard(path));
        }
    }
    if (host.registered.empty()) forget(pid);
}

}  // namespace services
