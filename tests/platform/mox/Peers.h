#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <span>
#include <variant>

#include "platform/mox/Connection.h"
#include "platform/mox/ServiceSocket.h"
#include "platform/mox/Wire.h"
#include "tests/support/Words.h"

// What tests of the transport share: a root of their own, a service in it that keeps what it is given, and a peer that
// speaks bytes.
namespace moxtest {

using Blob = std::vector<std::byte>;
using mox::wire::frame;
using mox::wire::FrameKind;

inline constexpr char kService[] = "test.service";
inline constexpr std::chrono::seconds kPatience{20};

struct World {
    const support::PrivateRoot root;
    support::LogLines log;
};

// Waits for what other threads note; gives up, and says so, after some seconds.
class Notebook {
public:
    template <typename Note>
    void note(Note&& note) {
        const std::lock_guard lock{mutex_};
        note();
        changed_.notify_all();
    }
    [[nodiscard]] bool await(const std::function<bool()>& there) {
        std::unique_lock lock{mutex_};
        return changed_.wait_for(lock, kPatience, there);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

struct ServiceOptions {
    bool answersLater = false;  // when it is told to
    mox::Bounds bounds = {};
    std::string name = kService;
    std::function<void(mox::Reply&)> fill = [](mox::Reply&) {};
};

// A service that answers a dictionary with "answer": its "question". What happens is kept as "connected", "request",
// "leaving" (as announced) and "gone", for all connections, in order.
class Service {
public:
    explicit Service(ServiceOptions options = {}) : options_{std::move(options)} {
        listener_->setConnectionHandler([this](const auto& connection) { accept(connection); });
        if (const auto error = listener_->resume()) throw std::runtime_error{*error->message};
    }
    // Every connection that was delivered is told to end, and says so, before the service goes.
    ~Service() {
        listener_.reset();
        queue->sync([] {});
        EXPECT_TRUE(notes_.await([this] { return open_ == 0; }));
    }

    [[nodiscard]] bool await(std::string_view event, std::ptrdiff_t times = 1) {
        return notes_.await([&] { return std::count(events_.begin(), events_.end(), event) >= times; });
    }
    Texts takeEvents() {
        Texts taken;
        notes_.note([&] { taken.swap(events_); });
        return taken;
    }

    void answer(std::size_t request) {
        std::pair<std::weak_ptr<mox::Connection>, std::optional<mox::Request>> entry;
        notes_.note([&] { entry.swap(waiting_.at(request)); });
        if (const auto connection = entry.first.lock()) reply(*connection, *entry.second);
    }

    const std::shared_ptr<queue::SerialQueue> queue = std::make_shared<queue::SerialQueue>("mox");  // where it accepts
    std::shared_ptr<const mox::PeerIdentity> identity;  // the last connection's, once that is connected

private:
    void accept(const std::shared_ptr<mox::Connection>& connection) {
        notes_.note([&] {
            events_.emplace_back("connected");
            identity = connection->identity();
            ++open_;
        });
        connection->setEventHandler([this, weak = std::weak_ptr{connection}](const mox::Event& event) {
            const auto self = weak.lock();
            if (const auto* request = std::get_if<mox::Request>(&event)) {
                if (!options_.answersLater) reply(*self, *request);
                notes_.note([&] {
                    events_.emplace_back("request");
                    if (options_.answersLater) waiting_.emplace_back(weak, *request);
                });
                return;
            }
            const bool isGone = mox::isError(std::get<mox::Object>(event), mox::ErrorCode::connectionInvalid);
            notes_.note([&] {
                events_.emplace_back(isGone ? "gone" : "leaving");
                if (isGone) --open_;
            });
        });
        connection->resume();
    }
    void reply(mox::Connection& connection, const mox::Request& request) {
        mox::Reply reply{request};
        if (const auto question = request.view().find("question")) reply.set("answer", question->toValue());
        options_.fill(reply);
        connection.send(reply);
    }

    const ServiceOptions options_;
    std::shared_ptr<mox::Listener> listener_ = mox::listen(options_.name, queue, options_.bounds);

    Notebook notes_;
    Texts events_;
    std::size_t open_ = 0;
    std::vector<std::pair<std::weak_ptr<mox::Connection>, std::optional<mox::Request>>> waiting_;
};

inline Blob operator+(Blob first, const Blob& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline Blob request(std::uint64_t replyId = 1) {
    const mox::Object question{Dictionary{{"question", 1}}};
    return frame(FrameKind::request, replyId, question.view().encoded());
}

// A client that writes what it is told. Blocking calls, each bounded by some seconds.
class RawPeer {
public:
    RawPeer() {
        const timeval patience{kPatience.count(), 0};
        ::setsockopt(get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }
    int get() const { return socket_.get(); }

    void connect() const {
        const auto directory = mox::openRuntimeDirectory();
        const sockaddr_un address = mox::serviceAddress(directory->get(), kService);
        if (::connect(get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error{"cannot connect"};
    }
    mox::wire::Nonce readHello() const {
        struct {
            mox::wire::Header header;
            std::uint32_t version;
            mox::wire::Nonce nonce;
        } hello{};
        readFully(std::as_writable_bytes(std::span{&hello, 1}).first(mox::wire::kHeaderSize + mox::wire::kHelloSize));
        return hello.nonce;
    }
    void greet() const { send(frame(FrameKind::echo, 0, readHello())); }

    // The service may have given up before all was said.
    void send(std::span<const std::byte> bytes) const {
        static_cast<void>(::send(get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    [[nodiscard]] bool readReply(std::uint64_t replyId = 1) const {
        mox::wire::Header header{};
        if (!readFully(std::as_writable_bytes(std::span{&header, 1}))) return false;
        Blob body(header.length - mox::wire::kLengthCounts);
        return header.kind == FrameKind::reply && header.replyId == replyId && readFully(body);
    }
    // Waits for it.
    [[nodiscard]] bool isEnded() const {
        std::array<std::byte, 4096> rest;
        ssize_t count = 0;
        do count = ::recv(get(), rest.data(), rest.size(), 0);
        while (count > 0);
        return count == 0 || errno == ECONNRESET;
    }

private:
    bool readFully(std::span<std::byte> bytes) const {
        return ::recv(get(), bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
    }

    file::UniqueFd socket_{::socket(AF_UNIX, SOCK_STREAM, 0)};
};

inline RawPeer greeted() {
    RawPeer peer;
    peer.connect();
    peer.greet();
    return peer;
}

}  // namespace moxtest
