#include "tests/platform/mox/Peers.h"

#include <sys/socket.h>

#include <chrono>
#include <cstring>

#include "platform/mox/Dictionary.h"
#include "platform/mox/ServiceSocket.h"

namespace moxtest {

using namespace std::chrono_literals;
using mox::wire::FrameKind;

namespace {

constexpr auto kPatience = 20s;

}  // namespace

bool Notebook::await(const std::function<bool()>& there) {
    std::unique_lock lock{mutex_};
    return changed_.wait_for(lock, kPatience, there);
}

World::World() {
    paths::Directories mine = before_;
    mine.runtime = root_ / "run";
    paths::setDirectories(mine);
    logging::setSink(
        [this](logging::Level, std::string_view line) { notes_.note([&] { lines_.emplace_back(line); }); });
}

World::~World() {
    logging::setSink({});
    paths::setDirectories(before_);
}

bool World::awaitLog(std::string_view part) {
    return notes_.await([&] {
        for (const std::string& line : lines_) {
            if (line.find(part) != std::string::npos) return true;
        }
        return false;
    });
}

std::vector<std::string> World::lines() {
    std::vector<std::string> copy;
    notes_.note([&] { copy = lines_; });
    return copy;
}

Service::Service(Answers answers, const mox::Bounds& bounds) : answers_{answers}, bounds_{bounds} {}

Service::~Service() {
    stop();
}

std::optional<value::Error> Service::start(const std::string& name) {
    listener_ = mox::listen(name, queue_, bounds_);
    listener_->setConnectionHandler([this](const auto& connection) { accept(connection); });
    return listener_->resume();
}

// Every connection that was delivered is told to end, and says so, before the service goes.
void Service::stop() {
    listener_.reset();
    queue_->sync([] {});
    std::size_t all = 0;
    notes_.note([&] { all = identities_.size(); });
    static_cast<void>(awaitInvalid(all));
}

void Service::block() {
    blocked_ = true;
    queue_->async([this] { static_cast<void>(notes_.await([this] { return !blocked_; })); });
}

void Service::unblock() {
    notes_.note([this] { blocked_ = false; });
}

void Service::accept(const std::shared_ptr<mox::Connection>& connection) {
    notes_.note([&] { identities_.push_back(connection->identity()); });
    connection->setEventHandler([this, weak = std::weak_ptr{connection}](const mox::Event& event) {
        if (const auto self = weak.lock()) take(self, event);
    });
    connection->resume();
}

void Service::take(const std::shared_ptr<mox::Connection>& connection, const mox::Event& event) {
    if (const auto* request = std::get_if<mox::Request>(&event)) {
        if (answers_ == Answers::atOnce) reply(connection, *request);
        notes_.note([&] {
            requests_.emplace_back(connection, *request);
            if (answers_ == Answers::atOnce) requests_.back().second.reset();
            events_.emplace_back("request");
        });
        return;
    }
    const auto error = std::get<mox::Object>(event).view().error();
    notes_.note([&] {
        events_.push_back(error ? "error " + std::to_string(error->code) : "other");
        if (mox::isError(std::get<mox::Object>(event), mox::ErrorCode::connectionInvalid)) ++invalid_;
    });
}

void Service::reply(const std::shared_ptr<mox::Connection>& connection, const mox::Request& request) {
    mox::Reply reply{request};
    if (const auto question = request.view().find("question")) reply.set("answer", question->toValue());
    fill(reply);
    connection->send(reply);
}

void Service::answer(std::size_t index) {
    std::pair<std::weak_ptr<mox::Connection>, std::optional<mox::Request>> entry;
    notes_.note([&] { std::swap(entry, requests_.at(index)); });
    if (const auto connection = entry.first.lock()) reply(connection, *entry.second);
}

bool Service::awaitConnections(std::size_t count) {
    return notes_.await([&] { return identities_.size() >= count; });
}
bool Service::awaitRequests(std::size_t count) {
    return notes_.await([&] { return requests_.size() >= count; });
}
bool Service::awaitInvalid(std::size_t count) {
    return notes_.await([&] { return invalid_ >= count; });
}

std::size_t Service::connections() {
    std::size_t count = 0;
    notes_.note([&] { count = identities_.size(); });
    return count;
}

std::size_t Service::requests() {
    std::size_t count = 0;
    notes_.note([&] { count = requests_.size(); });
    return count;
}

std::vector<std::string> Service::events() {
    std::vector<std::string> copy;
    notes_.note([&] { copy = events_; });
    return copy;
}

std::shared_ptr<const mox::PeerIdentity> Service::identity() {
    std::shared_ptr<const mox::PeerIdentity> last;
    notes_.note([&] { last = identities_.back(); });
    return last;
}

void RawPeer::open() {
    if (socket_) return;
    socket_ = file::UniqueFd{::socket(AF_UNIX, SOCK_STREAM, 0)};
    const timeval patience{std::chrono::seconds{kPatience}.count(), 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

void RawPeer::connect(const std::string& name) {
    open();
    const auto directory = mox::openRuntimeDirectory();
    const sockaddr_un address = mox::serviceAddress(directory->get(), name);
    if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) socket_.reset();
}

mox::wire::Nonce RawPeer::readHello() {
    mox::wire::Header header{};
    std::uint32_t version = 0;
    mox::wire::Nonce nonce{};
    if (readFully(std::as_writable_bytes(std::span{&header, 1})))
        readFully(std::as_writable_bytes(std::span{&version, 1})) && readFully(nonce);
    return nonce;
}

void RawPeer::greet() {
    send(frame(FrameKind::echo, 0, readHello()));
}

void RawPeer::send(std::span<const std::byte> bytes) {
    // The service may have given up before all was said.
    [[maybe_unused]] const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void RawPeer::sendDescriptor(std::span<const std::byte> bytes, int fd) {
    Blob copy{bytes.begin(), bytes.end()};
    iovec piece{copy.data(), copy.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof fd)> control{};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(rights), &fd, sizeof fd);
    ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
}

std::optional<mox::wire::Header> RawPeer::readReply() {
    mox::wire::Header header{};
    if (!readFully(std::as_writable_bytes(std::span{&header, 1}))) return {};
    Blob body(header.length - mox::wire::kLengthCounts);
    if (!readFully(body)) return {};
    return header;
}

bool RawPeer::isEnded() {
    std::array<std::byte, 4096> rest;
    ssize_t count = 0;
    do {
        count = ::recv(socket_.get(), rest.data(), rest.size(), 0);
    } while (count > 0);
    return count == 0 || errno == ECONNRESET;
}

bool RawPeer::readFully(std::span<std::byte> bytes) {
    return bytes.empty() ||
           ::recv(socket_.get(), bytes.data(), bytes.size(), MSG_WAITALL) == static_cast<ssize_t>(bytes.size());
}

Blob request(std::uint64_t replyId, std::size_t padding) {
    mox::Dictionary dictionary;
    dictionary.set("question", 1);
    dictionary.set("padding", value::Data(padding));
    return frame(FrameKind::request, replyId, dictionary.toObject().view().encoded());
}

Blob operator+(Blob first, const Blob& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace moxtest
