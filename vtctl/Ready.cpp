#include "vtctl/Ready.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>

#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/paths/Paths.h"
#include "platform/services/Registration.h"
#include "vtctl/Attendance.h"
#include "vtctl/Connection.h"
#include "vtctl/Grounds.h"
#include "vtctl/Json.h"
#include "vtctl/PlugIns.h"
#include "vtctl/Terminal.h"
#include "vtctl/verify/Report.h"
#include "vtctl/verify/Verify.h"

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

const Registered* registrationOf(const std::vector<Registered>& all, const plugins::PlugIn& plugIn) {
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&plugIn](const Registered& one) { return one.registration.uuid == plugIn.uuid; });
    return found == all.end() ? nullptr : &*found;
}

void report(const std::vector<plugins::PlugIn>& plugIns, bool asJson) {
    const std::vector<Registered> all = registrations();
    json::Json list = json::Json::array();
    for (const plugins::PlugIn& plugIn : plugIns) {
        const Registered* const found = registrationOf(all, plugIn);
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
        } else {
            std::cout << "ready; nothing to start\n";
        }
    }
    if (asJson) std::cout << json::indentedText(list) << "\n";
}

// What keeps them from being started, from the disk, or from being offered at all.
void tellWhy(VTDaemonClient& client, const std::vector<plugins::PlugIn>& plugIns) {
    const mox::Object reply = grounds::ask(client);
    const auto all = reply.isError() ? std::nullopt : explanations::in(reply);
    for (const plugins::PlugIn& plugIn : plugIns) {
        const auto isIt = [id = plugIn.uuid.string()](const auto& one) { return one.uuid == id; };
        std::string path = plugIn.path;
        if (all) {
            const auto found = std::find_if(all->begin(), all->end(), isIt);
            if (path.empty() && found != all->end()) path = found->path;
            if (grounds::tell(*all, isIt)) continue;
        }
        if (!path.empty()) verify::print(verify::ofPath(path), std::cerr);
    }
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
    const ExitStatus status =
        sendAndReport(client, request, options.serviceName,
                      {{VTErrorRequest, "plug-ins named before it may have been made ready, until now"},
                       {VTErrorAccess, "none of the plug-ins was made ready"}});
    if (status == ExitStatus::errorReply) tellWhy(client, resolved.plugIns);
    if (status != ExitStatus::success) return static_cast<int>(status);
    const auto announce = [&] { report(resolved.plugIns, options.asJson); };
    if (options.command.empty()) return attendance.untilInterrupted(announce, kLoss);
    announce();
    std::cout.flush();
    if (!std::cout) return static_cast<int>(ExitStatus::errorReply);
    return attendance.during(options.command, kLoss);
}
