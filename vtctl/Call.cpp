#include "vtctl/Call.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <mutex>

#include "Velto/VTProtocol.h"
#include "platform/queue/Reactor.h"
#include "vtctl/Connection.h"
#include "vtctl/Json.h"
#include "vtctl/Terminal.h"

namespace {

// The object's members as a message; "version" is 3 unless the object has it, and a null leaves a member out.
value::Result<mox::Dictionary> messageOf(const json::Json& object, const std::string& name) {
    if (!object.is_object()) return value::Error{"vtctl", 0, "a request is a JSON object"};
    mox::Dictionary message;
    if (!name.empty()) message.set(VTKey::request, name);
    if (!object.contains(VTKey::version)) message.set(VTKey::version, static_cast<std::uint64_t>(VTProtocolVersion));
    for (const auto& member : object.items()) {
        if (member.value().is_null()) {
            if (member.key() == VTKey::version) continue;
            return value::Error{"vtctl", 0, "\"" + member.key() + "\": null stands for no value; leave the member out"};
        }
        auto converted = json::toValue(member.value());
        if (!converted) return value::Error{"vtctl", 0, "\"" + member.key() + "\": " + *converted.error().message};
        message.set(member.key(), *std::move(converted));
    }
    return message;
}

// The worse of two outcomes decides: a daemon that is gone says more than an error in a reply.
void worsen(ExitStatus& status, ExitStatus by) {
    status = std::max(status, by);
}

ExitStatus print(const mox::Object& reply, const std::string& serviceName) {
    if (reply.isError()) {
        terminal::complain(mox::errorDescription(reply) + " (service " + serviceName + ")");
        return ExitStatus::unreachable;
    }
    std::cout << json::text(reply.view()) << std::endl;
    const auto code = reply.view().find(VTKey::errorCode);
    return code && code->unsignedInteger().value_or(0) != 0 ? ExitStatus::errorReply : ExitStatus::success;
}

// For whoever waits for an answer to each line: what stands for the reply of one that has none.
void printInstead(const char* outcome, const std::string& why) {
    std::cout << json::text(json::Json{{"outcome", outcome}, {"error", why}}) << std::endl;
}

value::Result<mox::Dictionary> messageFromText(const std::string& text, const std::string& name) {
    const auto parsed = json::parse(text);
    if (!parsed) return parsed.error();
    return messageOf(*parsed, name);
}

}  // namespace

ExitStatus runCall(const std::string& serviceName, const std::string& name, const std::string& object) {
    const auto message = messageFromText(object.empty() ? "{}" : object, name);
    if (!message) {
        terminal::complain(message.error().localizedDescription());
        return ExitStatus::usage;
    }
    VTDaemonClient client{serviceName};
    return print(sendAndWait(client, *message), serviceName);
}

ExitStatus runCallLines(const std::string& serviceName, std::istream& lines) {
    struct Progress {
        std::mutex mutex;  // guards all below; printing too, since replies come on the pool's threads
        std::size_t waiting = 0;
        ExitStatus status = ExitStatus::success;
    };
    const auto progress = std::make_shared<Progress>();
    VTDaemonClient client{serviceName};
    std::size_t number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        const auto message = messageFromText(line, "");
        const std::lock_guard lock{progress->mutex};
        if (!message) {
            const std::string why = message.error().localizedDescription();
            terminal::complain("line " + std::to_string(number) + ": " + why);
            printInstead("not sent", why);
            worsen(progress->status, ExitStatus::usage);
            continue;
        }
        ++progress->waiting;
        client.send(*message, [progress, serviceName](const mox::Object& reply) {
            const std::lock_guard replyLock{progress->mutex};
            worsen(progress->status, print(reply, serviceName));
            // The daemon may have done it all the same. The next line connects again.
            if (reply.isError()) printInstead("unknown", mox::errorDescription(reply));
            --progress->waiting;
            queue::wake();
        });
    }
    queue::runUntil([&progress] {
        const std::lock_guard lock{progress->mutex};
        return progress->waiting == 0;
    });
    const std::lock_guard lock{progress->mutex};
    return progress->status;
}
