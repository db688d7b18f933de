#include "vtctl/Connection.h"

#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/queue/Reactor.h"
#include "platform/text/Format.h"
#include "vtctl/Terminal.h"

namespace {

std::chrono::milliseconds patience = std::chrono::seconds{30};

constexpr char kDomain[] = "vtctl";  // of the error that stands for a reply that did not come

mox::Object noAnswer() {
    const double seconds = std::chrono::duration<double>{patience}.count();
    return mox::Object{value::Value{
        value::Error{kDomain, ETIMEDOUT, text::format("no answer within {} s; --timeout allows longer", seconds)}}};
}

}  // namespace

void setPatience(std::chrono::milliseconds duration) {
    patience = duration;
}

mox::Object sendAndWait(VTDaemonClient& client, const mox::Dictionary& request) {
    struct Answer {
        std::mutex mutex;  // the reply comes on a thread of the pool
        std::optional<mox::Object> reply;
    };
    const auto answer = std::make_shared<Answer>();
    client.send(request, [answer](const mox::Object& reply) {
        const std::lock_guard lock{answer->mutex};
        if (!answer->reply) answer->reply = reply;
        queue::wake();
    });
    const auto queue = std::make_shared<queue::SerialQueue>("patience");
    const auto timer = queue::after(patience, queue, [answer] {
        const std::lock_guard lock{answer->mutex};
        if (!answer->reply) answer->reply = noAnswer();
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
        const auto error = reply.view().error();
        terminal::complain(error && error->domain == kDomain
                               ? "the daemon is busy, or what serves " + serviceName + " is none"
                               : "is the daemon running? Start vtd, or name its service with -S (now " + serviceName +
                                     ")");
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
