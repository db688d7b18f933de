#include "vtctl/Register.h"

#include <iostream>
#include <set>
#include <string_view>

#include "Velto/VTExplanation.h"
#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "vtctl/Connection.h"
#include "vtctl/Grounds.h"
#include "vtctl/Paths.h"
#include "vtctl/verify/Report.h"
#include "vtctl/verify/Verify.h"

namespace {

// What is wrong on the disk, also where it was accepted; and what was registered and no host is shown all the same.
void tellWhatIsNotOffered(VTDaemonClient& client, const std::vector<std::string>& paths) {
    std::set<std::string> resolved;
    for (const std::string& path : paths) {
        verify::print(verify::ofPath(path), std::cerr);
        resolved.insert(file::canonicalPath(path).value_or(path));
    }
    const mox::Object reply = grounds::ask(client);
    const auto all = reply.isError() ? std::nullopt : explanations::in(reply);
    if (!all) return;
    grounds::tell(*all, [&](const auto& one) { return one.gate != VTGate::bundle && resolved.count(one.path) > 0; });
}

ExitStatus sendPaths(const std::string& serviceName, const char* request, const std::vector<std::string>& paths,
                     Advice advice) {
    const auto absolute = absolutePaths(paths);
    if (!absolute) return ExitStatus::usage;
    VTDaemonClient client{serviceName};
    const ExitStatus status = sendAndReport(client, client.request(request, *absolute), serviceName, advice);
    if (std::string_view{request} != VTRequest::add || status == ExitStatus::unreachable) return status;
    tellWhatIsNotOffered(client, *absolute);
    return status;
}

}  // namespace

ExitStatus runAdd(const std::string& serviceName, const std::vector<std::string>& paths) {
    return sendPaths(
        serviceName, VTRequest::add, paths,
        {{VTErrorRegistry, "is it the folder of a plug-in, with an Info.plist? Paths before this one are registered"},
         {VTErrorPath, "nothing can be found there; paths before this one are registered"}});
}

ExitStatus runRemove(const std::string& serviceName, const std::vector<std::string>& paths) {
    return sendPaths(
        serviceName, VTRequest::remove, paths,
        {{VTErrorPath,
          "only what `vtctl add` registered can be removed; a plug-in in a folder that the daemon watches goes "
          "when it is deleted. Paths before this one are unregistered"}});
}
