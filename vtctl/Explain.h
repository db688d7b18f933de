#pragma once

#include <string>
#include <vector>

#include "vtctl/ExitStatus.h"

// `vtctl explain`: why a plug-in is offered to a host or not, gate by gate.
struct ExplainOptions {
    std::string serviceName;
    std::string subject;                // a UUID, an identifier or a part of one, or a path
    std::string host;                   // a pid or an application's path; empty: vtctl itself
    std::vector<std::string> patterns;  // KEY=PATTERN
    bool asJson = false;
};

ExitStatus runExplain(const ExplainOptions& options);

class VTDaemonClient;
namespace mox {
class Dictionary;
}

// Has a "match" request answered as the host would be; false, and a word on standard error, for what is no host.
bool setHost(mox::Dictionary& request, const std::string& host);
