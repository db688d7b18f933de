#include "vtctl/Connection.h"

#include <iostream>

#include "platform/queue/Reactor.h"

mox::Object sendAndWait(VTDaemonClient& client, const mox::Dictionary& request) {
    std::optional<mox::Object> answer;
    client.send(request, [&answer](const mox::Object& reply) {
        answer = reply;
        queue::wake();
    });
    queue::runUntil([&answer] { return answer.has_value(); });
    return *std::move(answer);
}

ExitStatus reportErrorIn(VTDaemonClient& client, const mox::Object& reply, const std::string& serviceName) {
    if (reply.isError()) {
        std::cerr << "vtctl: " << mox::errorDescription(reply) << "\n"
                  << "vtctl: is the daemon running? Start vtd, or name its service with -S (now " << serviceName
                  << ")\n";
        return ExitStatus::unreachable;
    }
    if (const auto error = client.errorInReply(reply)) {
        std::cerr << "vtctl: " << error->localizedDescription() << " (error " << error->code << ")\n";
        return ExitStatus::errorReply;
    }
    return ExitStatus::success;
}
