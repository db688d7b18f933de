#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Velto/VTProtocol.h"
#include "bench/RawConnection.h"
#include "fuzz/Cost.h"
#include "fuzz/Fuzz.h"
#include "fuzz/HostileWorld.h"
#include "fuzz/RequestGenerator.h"
#include "platform/mox/View.h"
#include "platform/mox/Wire.h"

// Requests of every type, one client's, against a daemon in this process over a world of hostile bundles. The input
// steers what is asked (RequestGenerator.h). A finding is a request that costs the daemon more than a request may:
// processor time (of all threads but the client's, as an unsanitized build would need), memory beside its own reply, or
// an answer that does not come.
//
// Each input has a connection of its own and finds the daemon as it was, so that a finding is its own.

namespace {

// Of processor time for one request; that of a discovery over 260 plug-ins is 3.
constexpr double kMostMilliseconds = 100;

// Of memory: for each byte of the request, for any, and for the reply, whose bytes are there once, beside the list of
// the plug-ins in it: some 300 bytes for each, whose form has thousands.
constexpr std::size_t kMemoryForByte = 16, kMemoryForAny = std::size_t{64} << 10;
constexpr std::size_t memoryForReply(std::size_t bytes) {
    return bytes + bytes / 4;
}

constexpr int kPatience = 8'000;  // milliseconds without an answer, while the daemon works no more
constexpr std::size_t kMostRequests = 6;

[[noreturn]] void find(const char* what, double figure, double most, std::size_t requestBytes) {
    std::fprintf(stderr, "a request of %zu bytes: %s %.0f, at most %.0f\n", requestBytes, what, figure, most);
    std::abort();
}

class Client {
public:
    explicit Client(const std::string& socketPath) : connection_{socketPath} { connection_.shakeHands(); }

    // Memory that a request takes for the first time may be what the daemon keeps of its plug-ins from then on: it
    // counts when it is taken again.
    void ask(const std::vector<std::byte>& body) {
        if (play(body) <= 0) return;
        const std::ptrdiff_t beyond = play(body);
        if (beyond > 0) find("bytes of memory too many:", static_cast<double>(beyond), 0, body.size());
    }

    // The token of the reply, when it has one.
    std::optional<value::Uuid> token() const {
        if (reply_.size() != replySize_) return {};
        const auto found = mox::View{reply_.data() + mox::wire::kHeaderSize}.find(VTKey::uuids);
        return found ? found->uuid() : std::nullopt;
    }

private:
    // Sends it while it reads what comes: the daemon may not take the end of one request before it has got rid of its
    // answer to another. The beginning of the reply is kept. Answers how much memory it took beyond what it may.
    std::ptrdiff_t play(const std::vector<std::byte>& body) {
        const auto frame = mox::wire::frame(mox::wire::FrameKind::request, 1, body);
        fuzz::HostileWorld::get().settle();
        const fuzz::Cost cost;
        std::size_t sent = 0, size = 0, waited = 0;
        reply_.clear();
        replySize_ = SIZE_MAX;
        while (size < replySize_) {
            pollfd ready{connection_.fd(), static_cast<short>(POLLIN | (sent < frame.size() ? POLLOUT : 0)), 0};
            constexpr int kStep = 100;
            const double before = cost.milliseconds();
            if (::poll(&ready, 1, kStep) == 0) {
                waited = cost.milliseconds() - before > 1 ? 0 : waited + kStep;
                if (waited > kPatience) find("milliseconds without an answer:", kPatience, 0, body.size());
            }
            if ((ready.revents & POLLOUT) != 0) sent += send(frame, sent);
            if ((ready.revents & POLLIN) != 0) size += receive();
            const double spent = cost.milliseconds();
            if (spent > kMostMilliseconds) find("milliseconds", spent, kMostMilliseconds, body.size());
        }
        const std::size_t most = kMemoryForByte * body.size() + kMemoryForAny + memoryForReply(size);
        return cost.peakBytes() - static_cast<std::ptrdiff_t>(most);
    }

    std::size_t send(const std::vector<std::byte>& frame, std::size_t from) const {
        const ssize_t sent =
            ::send(connection_.fd(), frame.data() + from, frame.size() - from, MSG_NOSIGNAL | MSG_DONTWAIT);
        fuzz::require(sent > 0 || errno == EAGAIN);
        return sent > 0 ? static_cast<std::size_t>(sent) : 0;
    }

    std::size_t receive() {
        constexpr std::size_t kKept = 4'096;
        static std::vector<std::byte> bytes(std::size_t{1} << 20);
        const ssize_t got = ::recv(connection_.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        fuzz::require(got > 0 || (got < 0 && errno == EAGAIN));  // the daemon answers whatever is sound
        if (got < 0) return 0;
        const std::size_t keep = std::min(static_cast<std::size_t>(got), kKept - std::min(kKept, reply_.size()));
        reply_.insert(reply_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(keep));
        if (replySize_ == SIZE_MAX && reply_.size() >= mox::wire::kHeaderSize) {
            replySize_ = sizeof(std::uint32_t) + mox::encoding::load<std::uint32_t>(reply_.data());
        }
        return static_cast<std::size_t>(got);
    }

    bench::RawConnection connection_;
    std::vector<std::byte> reply_;
    std::size_t replySize_ = SIZE_MAX;
};

// What a client that added the bundles may take back: the world is as it was.
std::vector<std::byte> removalOf(const std::vector<std::string>& paths) {
    value::Array::Storage list;
    for (const std::string& path : paths) list.emplace_back(path);
    mox::Encoder encoder;
    encoder.value(value::Dictionary{
        {VTKey::request, VTRequest::remove}, {VTKey::version, 3U}, {VTKey::paths, value::Array{std::move(list)}}});
    return encoder.take();
}

}  // namespace

// Before the first input, whose time is limited.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::HostileWorld::get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const fuzz::HostileWorld& world = fuzz::HostileWorld::get();
    fuzz::Steering steering{{data, size}};
    fuzz::RequestGenerator generator{steering, world};
    {
        Client client{world.socketPath()};
        value::Uuid token;
        for (std::size_t request = 0; request < kMostRequests && !steering.isAtEnd(); ++request) {
            client.ask(generator.next(token));
            if (const auto held = client.token()) token = *held;
        }
        if (generator.mayHaveAdded()) {
            for (const std::string& path : world.addable) client.ask(removalOf({path}));
        }
    }
    if (generator.mayHaveChangedState()) world.restore();
    return 0;
}
