#include "vtctl/Register.h"

#include <iostream>
#include <string_view>

#include "Velto/VTProtocol.h"
#include "vtctl/Connection.h"
#include "vtctl/Paths.h"
#include "vtctl/verify/Report.h"
#include "vtctl/verify/Verify.h"

namespace {

ExitStatus sendPaths(const std::string& serviceName, const char* request, const std::vector<std::string>& paths,
                     Advice advice) {
    const auto absolute = absolutePaths(paths);
    if (!absolute) return ExitStatus::usage;
    VTDaemonClient client{serviceName};
    const ExitStatus status = sendAndReport(client, client.request(request, *absolute), serviceName, advice);
    if (std::string_view{request} != VTRequest::add || status == ExitStatus::unreachable) return status;
    // What the daemon says in its log only, and what it accepts though it is not meant.
    for (const std::string& path : *absolute) verify::print(verify::ofPath(path), std::cerr);
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
