#include "platform/mox/ProcessIdentity.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>

#include "platform/bundle/Bundle.h"
#include "platform/entitlements/Entitlements.h"
#include "platform/file/File.h"
#include "platform/mox/PeerProgram.h"
#include "platform/text/Format.h"

namespace mox {

namespace {

constexpr std::size_t kStatusLimit = std::size_t{64} << 10;

// The effective user: the second number behind "Uid:".
std::optional<uid_t> userOf(pid_t pid) {
    constexpr std::string_view kLine = "\nUid:\t";
    const auto status = file::readRegular(text::format("/proc/{}/status", pid), kStatusLimit);
    const std::size_t line = status ? status->bytes.find(kLine) : std::string::npos;
    if (line == std::string::npos) return {};
    const std::size_t second = status->bytes.find('\t', line + kLine.size());
    if (second == std::string::npos) return {};
    uid_t user = 0;
    const char* const end = status->bytes.data() + status->bytes.size();
    if (std::from_chars(status->bytes.data() + second + 1, end, user).ec != std::errc{}) return {};
    return user;
}

}  // namespace

value::Result<std::shared_ptr<const PeerIdentity>> identityOf(pid_t pid) {
    const std::string name = text::format("process {}", pid);
    if (pid <= 0) return value::posixError(ESRCH, name);
    auto identity = std::make_shared<PeerIdentity>();
    identity->pid = pid;
    identity->pidfd = file::UniqueFd{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))};
    if (!identity->pidfd) return value::posixError(errno, name);
    identity->startTime = startTimeOf(pid);
    identity->executable = identify(text::format("/proc/{}/exe", pid));
    const auto user = userOf(pid);
    if (!user || (*user != ::geteuid() && *user != 0)) return value::posixError(EACCES, name);
    identity->uid = *user;
    const auto program = std::make_shared<PeerProgram>();
    lookAt(pid, identity->executable, *program);
    identity->program = program;
    if (!isUnchanged(*identity)) return value::posixError(ESRCH, name);
    return std::shared_ptr<const PeerIdentity>{identity};
}

value::Result<std::shared_ptr<const PeerIdentity>> identityOfBundle(const std::string& path) {
    file::UniqueFd directory{::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)};
    if (!directory) return value::posixError(errno, path);
    const auto program = std::make_shared<PeerProgram>();
    program->entitlements = entitlements::ofBundle(directory.get(), path);
    program->bundle = bundle::essentialsOf(*bundle::Bundle::openAt(std::move(directory), path));
    if (!program->bundle->bundlePath()) return value::posixError(ENOENT, path + '/' + bundle::kInfoFile);
    program->executablePath = program->bundle->executablePath().value_or(path);
    auto identity = std::make_shared<PeerIdentity>();
    identity->program = program;
    return std::shared_ptr<const PeerIdentity>{identity};
}

}  // namespace mox
