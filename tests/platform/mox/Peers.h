#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "platform/file/UniqueFd.h"
#include "platform/logging/Log.h"
#include "platform/mox/Connection.h"
#include "platform/mox/Wire.h"
#include "platform/paths/Paths.h"
#include "tests/support/TemporaryDirectory.h"

// What tests of the transport share: a world of their own, a service in it that keeps what it is given, and a peer that
// speaks bytes.
namespace moxtest {

using Blob = std::vector<std::byte>;

// Waits for what other threads note; gives up, and says so, after some seconds.
class Notebook {
public:
    template <typename Note>
    void note(Note&& note) {
        const std::lock_guard lock{mutex_};
        note();
        changed_.notify_all();
    }
    [[nodiscard]] bool await(const std::function<bool()>& there);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
};

// A runtime directory of the test's own, and the lines that were logged.
class World {
public:
    World();
    ~World();

    const std::string& runtime() const { return paths::directories().runtime; }
    [[nodiscard]] bool awaitLog(std::string_view part);
    std::vector<std::string> lines();

private:
    const support::TemporaryDirectory root_;
    const paths::Directories before_ = paths::directories();
    Notebook notes_;
    std::vector<std::string> lines_;
};

// A service that answers a dictionary with "answer": its "question", unless it is told to wait.
class Service {
public:
    enum class Answers { atOnce, later };

    explicit Service(Answers answers = Answers::atOnce, const mox::Bounds& bounds = {});
    ~Service();

    std::optional<value::Error> start(const std::string& name = kName);
    void stop();
    void block();    // accepts nothing
    void unblock();  // and now what came

    [[nodiscard]] bool awaitConnections(std::size_t count);
    [[nodiscard]] bool awaitRequests(std::size_t count);
    [[nodiscard]] bool awaitInvalid(std::size_t count);
    std::size_t connections();
    std::size_t requests();
    std::vector<std::string> events();  // of all connections, in order: "request", "error CODE", "other"

    std::shared_ptr<const mox::PeerIdentity> identity();  // the last connection's
    void answer(std::size_t request);
    std::function<void(mox::Reply&)> fill = [](mox::Reply&) {};  // set before start()

    static constexpr char kName[] = "test.service";

private:
    void accept(const std::shared_ptr<mox::Connection>& connection);
    void take(const std::shared_ptr<mox::Connection>& connection, const mox::Event& event);
    void reply(const std::shared_ptr<mox::Connection>& connection, const mox::Request& request);

    const Answers answers_;
    const mox::Bounds bounds_;
    const std::shared_ptr<queue::SerialQueue> queue_ = std::make_shared<queue::SerialQueue>("mox");
    std::shared_ptr<mox::Listener> listener_;

    Notebook notes_;
    std::vector<std::shared_ptr<const mox::PeerIdentity>> identities_;
    std::vector<std::pair<std::weak_ptr<mox::Connection>, std::optional<mox::Request>>> requests_;
    std::vector<std::string> events_;
    std::size_t invalid_ = 0;
    bool blocked_ = false;
};

// A client that writes what it is told. Blocking calls, each bounded by some seconds.
class RawPeer {
public:
    RawPeer() = default;
    explicit RawPeer(const std::string& name) { connect(name); }

    void open();  // the socket; connect() does so too
    void connect(const std::string& name);
    int get() const { return socket_.get(); }
    void close() { socket_.reset(); }

    void greet();  // reads the hello and sends the echo
    mox::wire::Nonce readHello();
    void send(std::span<const std::byte> bytes);
    void sendDescriptor(std::span<const std::byte> bytes, int fd);
    std::optional<mox::wire::Header> readReply();  // and passes over its body; nothing at the end
    [[nodiscard]] bool isEnded();                  // waits for it

private:
    bool readFully(std::span<std::byte> bytes);

    file::UniqueFd socket_;
};

using mox::wire::frame;
Blob request(std::uint64_t replyId, std::size_t padding = 0);  // {"question": 1, "padding": so many bytes}
Blob operator+(Blob first, const Blob& second);

}  // namespace moxtest
