#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/mox/ClientConnection.h"
#include "platform/queue/SerialQueue.h"
#include "platform/sandbox/Extensions.h"
#include "platform/sandbox/Messages.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/sandbox/Token.h"
#include "platform/text/Utf8.h"

namespace sandbox {

namespace {

std::atomic<std::chrono::milliseconds> patience{std::chrono::seconds{10}};

// Between the one who asks and the queue where the reply arrives: it is either taken in time or comes too late.
class Answer {
public:
    bool arrive(const mox::Object& reply) {  // false: too late
        const std::lock_guard lock{mutex_};
        if (!awaited_) return false;
        reply_ = reply;
        arrived_.notify_one();
        return true;
    }

    std::optional<mox::Object> await() {
        std::unique_lock lock{mutex_};
        arrived_.wait_for(lock, patience.load(), [this] { return reply_.has_value(); });
        awaited_ = false;
        return reply_;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    bool awaited_ = true;
    std::optional<mox::Object> reply_;
};

// The process's one connection to the sandbox service, made when it is first needed.
class Channel {
public:
    std::shared_ptr<mox::ClientConnection> connection() {
        const std::lock_guard lock{mutex_};
        if (!connection_) {
            connection_ = mox::ClientConnection::create(serviceNameFor(daemonServiceName_), queue_);
            connection_->setEventHandler([](const mox::Object&) {});  // each request is told by its own reply
            connection_->resume();
        }
        return connection_;
    }

    void setDaemonServiceName(std::string name) {
        std::shared_ptr<mox::ClientConnection> former;  // closed without the lock
        const std::lock_guard lock{mutex_};
        daemonServiceName_ = std::move(name);
        former.swap(connection_);
    }

private:
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("sandbox_client");
    std::mutex mutex_;
    std::string daemonServiceName_ = "halvern.velto.vtd";
    std::shared_ptr<mox::ClientConnection> connection_;
};

Channel& channel() {
    static Channel& kept = *new Channel;  // never destroyed: holders of tokens may release them while the process ends
    return kept;
}

value::Result<mox::Object> ask(const mox::Dictionary& request, void (*tooLate)(const mox::Object&) = nullptr) {
    const auto answer = std::make_shared<Answer>();
    const auto connection = channel().connection();
    connection->send(request, [answer, tooLate](const mox::Object& reply) {
        if (!answer->arrive(reply) && tooLate != nullptr) tooLate(reply);
    });
    const auto reply = answer->await();
    if (!reply) return value::posixError(ETIMEDOUT, "sandbox service");
    if (reply->isError()) return value::posixError(ECONNRESET, "sandbox service, " + mox::errorDescription(*reply));
    return *reply;
}

std::int64_t handleIn(const mox::Object& reply) {
    const auto handle = reply.isError() ? std::nullopt : reply.view().find(kHandleKey);
    const std::int64_t given = (handle ? handle->signedInteger() : std::nullopt).value_or(kRefused);
    return given != 0 ? given : kRefused;
}

// The error that a reply carries, if it does.
std::optional<value::Error> errorIn(mox::View reply) {
    const auto code = reply.find(kErrorCodeKey);
    if (!code) return {};
    const auto text = reply.find(kErrorKey);
    const auto message = text ? text->string() : std::nullopt;
    return value::Error{"posix", static_cast<std::int64_t>(code->unsignedInteger().value_or(EPROTO)),
                        std::string{message.value_or("refused")}};
}

mox::Dictionary request(const char* name) {
    mox::Dictionary message;
    message.set(kRequestKey, name);
    return message;
}

value::Data bytesOf(const std::string& text) {
    const auto* bytes = reinterpret_cast<const std::byte*>(text.data());
    return {bytes, bytes + text.size()};
}

}  // namespace

std::int64_t consume(const std::string& token) {
    if (token.size() > kLongestToken || !text::isUtf8(token)) return kRefused;  // no message could carry it
    mox::Dictionary message = request(kConsumeRequest);
    message.set(kTokenKey, token);
    // The handle of a connection that broke meanwhile is gone with it, and is given back for nothing.
    const auto reply = ask(message, [](const mox::Object& late) { release(handleIn(late)); });
    return reply ? handleIn(*reply) : kRefused;
}

void release(std::int64_t handle) {
    if (handle <= 0) return;
    mox::Dictionary message = request(kReleaseRequest);
    message.set(kHandleKey, handle);
    channel().connection()->send(message, [](const mox::Object&) {});
}

value::Result<file::UniqueFd> openFile(std::int64_t handle, const std::string& path) {
    mox::Dictionary message = request(kOpenRequest);
    message.set(kHandleKey, handle);
    message.set(kPathKey, bytesOf(path));
    const auto reply = ask(message);
    if (!reply) return reply.error();
    if (auto error = errorIn(reply->view())) return std::move(*error);
    const auto& shared = reply->descriptor();
    if (!shared) return value::posixError(ETOOMANYREFS, path);  // the kernel passed none
    file::UniqueFd own{fcntl(shared->get(), F_DUPFD_CLOEXEC, 0)};
    if (!own) return value::posixError(errno, path);
    return own;
}

void setPatience(std::chrono::milliseconds longest) {
    patience.store(longest);
}

void setDaemonServiceName(std::string name) {
    channel().setDaemonServiceName(std::move(name));
}

}  // namespace sandbox
