#include "vtctl/Ready.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <unordered_set>

#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/services/Registration.h"
#include "vtctl/Attendance.h"
#include "vtctl/Connection.h"
#include "vtctl/Json.h"
#include "vtctl/PlugIns.h"
#include "vtctl/Terminal.h"

namespace {

constexpr char kLoss[] = "the daemon went away: until it is back nobody withdraws what was registered";

struct Registered {
    std::string file;
    services::Registration registration;
};

// What there is for this process, as whoever starts plug-ins finds it.
std::vector<Registered> registrations() {
    std::vector<Registered> found;
    std::error_code none;  // as where only data plug-ins were named
    const std::string directory = paths::directories().runtime + "/services/" + std::to_string(::getpid());
    for (std::filesystem::directory_iterator at{directory, none}, end; at != end; at.increment(none)) {
        const std::string file = at->path().string();
        if (!file.ends_with(services::kFileSuffix)) continue;
        const auto contents = file::readRegular(file, services::kMostBytes);
        auto registration = contents ? services::decode(contents->bytes) : std::nullopt;
        if (registration) found.push_back({file, *std::move(registration)});
    }
    return found;
}

// Whose the registrations are. A plug-in that no discovery shows is known by its UUID alone, which is in no
// registration: what nobody else claims is its own, if it is the only one.
class Claims {
public:
    explicit Claims(const std::vector<plugins::PlugIn>& plugIns) {
        for (const plugins::PlugIn& plugIn : plugIns) {
            if (plugIn.path.empty()) {
                ++unlisted_;
            } else if (const Registered* own = in(plugIn.path)) {
                claimed_.insert(own);
            }
        }
    }

    const Registered* of(const plugins::PlugIn& plugIn) const {
        if (!plugIn.path.empty()) return in(plugIn.path);
        return unlisted_ == 1 ? unclaimed() : nullptr;
    }
    bool isUnclear(const plugins::PlugIn& plugIn) const {
        return plugIn.path.empty() && unlisted_ > 1 && unclaimed() != nullptr;
    }

private:
    const Registered* in(const std::string& bundlePath) const {
        const auto found = std::find_if(all_.begin(), all_.end(), [&bundlePath](const Registered& one) {
            return services::bundlePathOf(one.registration) == bundlePath;
        });
        return found == all_.end() ? nullptr : &*found;
    }
    const Registered* unclaimed() const {
        const auto found =
            std::find_if(all_.begin(), all_.end(), [this](const Registered& one) { return claimed_.count(&one) == 0; });
        return found == all_.end() ? nullptr : &*found;
    }

    const std::vector<Registered> all_ = registrations();
    std::unordered_set<const Registered*> claimed_;
    std::size_t unlisted_ = 0;
};

void report(const std::vector<plugins::PlugIn>& plugIns, bool asJson) {
    const Claims claims{plugIns};
    json::Json list = json::Json::array();
    for (const plugins::PlugIn& plugIn : plugIns) {
        const Registered* const found = claims.of(plugIn);
        json::Json entry{{"uuid", plugIn.uuid.string()}};
        if (!plugIn.identifier.empty()) entry["identifier"] = plugIn.identifier;
        if (found != nullptr) {
            entry["executable"] = found->registration.executable;
            entry["registration"] = found->file;
        }
        list.push_back(std::move(entry));
        if (asJson) continue;
        std::cout << plugIn.title() << ": ";
        if (found != nullptr) {
            std::cout << "registered in " << terminal::shown(found->file) << "\n";
        } else if (claims.isUnclear(plugIn)) {
            std::cout << "ready; it is in no list, so that its registration cannot be told from the others\n";
        } else {
            std::cout << "ready; nothing to start\n";
        }
    }
    if (asJson) std::cout << json::indentedText(list) << "\n";
}

}  // namespace

int runReady(const ReadyOptions& options) {
    Attendance attendance{options.serviceName};
    VTDaemonClient& client = attendance.client();
    const plugins::Resolution resolved =
        plugins::resolve(client, options.serviceName, options.plugIns, plugins::Which::onePerIdentifier);
    if (resolved.status != ExitStatus::success) {
        if (resolved.status == ExitStatus::usage) terminal::complain("nothing was made ready");
        return static_cast<int>(resolved.status);
    }
    mox::Dictionary request = client.request(VTRequest::ready);
    VTDaemonClient::set(request, plugins::uuidsOf(resolved.plugIns));
    request.set(VTKey::flags, std::uint64_t{0});
    const ExitStatus status = sendAndReport(
        client, request, options.serviceName,
        {{VTErrorRequest,
          "the daemon's log has the reason; plug-ins named before it may have been made ready, until now"},
         {VTErrorAccess, "none of the plug-ins was made ready"}});
    if (status != ExitStatus::success) return static_cast<int>(status);
    const auto announce = [&] { report(resolved.plugIns, options.asJson); };
    if (options.command.empty()) return attendance.untilInterrupted(announce, kLoss);
    announce();
    std::cout.flush();
    if (!std::cout) return static_cast<int>(ExitStatus::errorReply);
    return attendance.during(options.command, kLoss);
}
