#include "vtctl/Connection.h"

#include <memory>
#include <mutex>
#include <optional>

#include "platform/queue/Reactor.h"
#include "vtctl/Terminal.h"

mox::Object sendAndWait(VTDaemonClient& client, const mox::Dictionary& request) {
    struct Answer {
        std::mutex mutex;  // the reply comes on a thread of the pool
        std::optional<mox::Object> reply;
    };
    const auto answer = std::make_shared<Answer>();
    client.send(request, [answer](const mox::Object& reply) {
        const std::lock_guard lock{answer->mutex};
        answer->reply = reply;
        queue::wake();
    });
    queue::runUntil([&answer] {
        const std::lock_guard lock{answer->mutex};
        return answer->reply.has_value();
    });
    const std::lock_guard lock{answer->mutex};
    return *answer->reply;
}

ExitStatus reportErrorIn(VTDaemonClient& client, const mox::Object& reply, const std::string& serviceName,
                         Advice advice) {
    if (reply.isError()) {
        terminal::complain(mox::errorDescription(reply));
        terminal::complain("is the daemon running? Start vtd, or name its service with -S (now " + serviceName + ")");
        return ExitStatus::unreachable;
    }
    const auto error = client.errorInReply(reply);
    if (!error) return ExitStatus::success;
    terminal::complain(error->localizedDescription() + " (error " + std::to_string(error->code) + ")");
    for (const auto& [code, what] : advice) {
        if (code == error->code) terminal::complain(what);
    }
    return ExitStatus::errorReply;
}

ExitStatus sendAndReport(VTDaemonClient& client, const mox::Dictionary& request, const std::string& serviceName,
                         Advice advice) {
    return reportErrorIn(client, sendAndWait(client, request), serviceName, advice);
}
