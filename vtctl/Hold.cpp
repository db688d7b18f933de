#include "vtctl/Hold.h"

#include <filesystem>
#include <iostream>
#include <system_error>

#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "vtctl/Attendance.h"
#include "vtctl/Connection.h"
#include "vtctl/Paths.h"
#include "vtctl/Terminal.h"

namespace {

constexpr char kLoss[] = "the daemon went away: nothing is on hold any more";

void reportConflicts(const mox::Object& reply) {
    const auto conflicts = mox_dictionary_get_array(reply.view(), VTKey::conflicts);
    if (!conflicts) return;
    conflicts->forEachElement([](mox::View conflict) {
        if (!conflict.isDictionary()) return;
        conflict.forEachEntry([](std::string_view, mox::View identifier) {
            if (const auto text = identifier.string()) terminal::complain("busy: " + std::string{*text});
        });
    });
    terminal::complain(
        "end what uses them and try again, or hold each plug-in by its own path, without --app, busy or not");
}

// The reply does not tell how many plug-ins it is about, and that of a folder that is no application is a success.
void warnOfNone(const std::vector<std::string>& applications) {
    for (const std::string& path : applications) {
        std::error_code none;
        if (std::filesystem::exists(path + "/Info.plist", none) && std::filesystem::exists(path + "/PlugIns", none)) {
            continue;
        }
        terminal::complain(
            path +
            " has no Info.plist and PlugIns folder, as an application with plug-ins has: nothing there is on hold");
    }
}

mox::Dictionary releaseOf(const VTDaemonClient& client, const value::Uuid& token) {
    mox::Dictionary request = client.request(VTRequest::lock);
    VTDaemonClient::set(request, {&token, 1});
    return request;
}

}  // namespace

int runHold(const HoldOptions& options) {
    const auto paths = absolutePaths(options.paths);
    if (!paths) return static_cast<int>(ExitStatus::usage);
    Attendance attendance{options.serviceName};
    VTDaemonClient& client = attendance.client();
    mox::Dictionary request = client.request(VTRequest::lock, *paths);
    request.set(VTKey::flags, static_cast<std::uint64_t>(options.applications ? VTHoldApplication : VTHoldPlugIn));
    const mox::Object reply = sendAndWait(client, request);
    const ExitStatus status = reportErrorIn(
        client, reply, options.serviceName,
        {{VTErrorPath, options.applications ? "name the folder of an application that is there"
                                            : "name the folder of a plug-in; with --app, that of an application"}});
    if (status != ExitStatus::success) {
        reportConflicts(reply);
        return static_cast<int>(status);
    }
    const auto held = reply.view().find(VTKey::uuids);
    const auto token = held ? held->uuid() : std::nullopt;
    if (!token) {
        terminal::complain("the reply holds no token");
        return static_cast<int>(ExitStatus::errorReply);
    }

    if (options.applications) warnOfNone(*paths);
    int ended = 0;
    if (options.command.empty()) {
        ended = attendance.untilInterrupted([&token] { std::cout << token->string() << "\n"; }, kLoss);
    } else {
        ended = attendance.during(options.command, kLoss);
    }
    // The hold would go with the connection; asked for, it is gone before we are.
    if (!attendance.daemonIsGone()) sendAndWait(client, releaseOf(client, *token));
    return ended;
}

ExitStatus runUnhold(const std::string& serviceName, const std::string& token) {
    const auto uuid = value::Uuid::parse(token);
    if (!uuid) {
        terminal::complain('"' + token + "\" is no token; `vtctl hold` prints one");
        return ExitStatus::usage;
    }
    VTDaemonClient client{serviceName};
    return sendAndReport(client, releaseOf(client, *uuid), serviceName, {});
}
