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
#include "fuzz/Host.h"
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

// Of memory: for each byte of the request, for any, for each byte of the reply, and for each plug-in that it may be
// about, which is on a list of candidates and has a form, whether a reply comes of it or not (the format of old clients
// has none).
constexpr std::size_t kMemoryForByte = 16, kMemoryForAny = std::size_t{64} << 10, kMemoryForPlugIn = 600;

// What the registry takes to learn that bundles have come or gone: it reads what they say, and knows what is installed
// by a table that is made anew while the old one is there. That grows with what is on the disk and not with the
// request, so it is found out beforehand.
std::ptrdiff_t registryTakes = 0;

// What the annotation store takes to write a record anew, one at a time: its text, of 64 KiB at the most, in a buffer
// that doubles as it grows. However little a request changes, the record may be as large as an earlier one made it.
constexpr std::ptrdiff_t kRecordTakes = std::ptrdiff_t{192} << 10;

// What it takes to read one bundle's Info.plist, of 256 KiB and 20,000 values at the most, before it is enabled.
constexpr std::ptrdiff_t kDescriptionTakes = std::ptrdiff_t{1} << 20;

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
    // What the daemon's own stores may take besides is `most`.
    void ask(const std::vector<std::byte>& body, std::ptrdiff_t most) {
        if (play(body) <= most) return;
        const std::ptrdiff_t beyond = play(body) - most;
        if (beyond > 0) find("bytes of memory too many:", static_cast<double>(beyond), 0, body.size());
    }

    // The request's memory beyond what one may have of which nothing else is known.
    std::ptrdiff_t measure(const std::vector<std::byte>& body) { return play(body); }

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
        const std::size_t most = kMemoryForByte * body.size() + kMemoryForAny + size +
                                 kMemoryForPlugIn * fuzz::HostileWorld::get().plugIns.size();
        return cost.peakBytes() - static_cast<std::ptrdiff_t>(most);
    }

    std::size_t send(const std::vector<std::byte>& frame, std::size_t from) const {
        const ssize_t sent =
            ::send(connection_.fd(), frame.data() + from, frame.size() - from, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent <= 0 && errno != EAGAIN) find("was turned away, error", errno, 0, frame.size());
        return sent > 0 ? static_cast<std::size_t>(sent) : 0;
    }

    std::size_t receive() {
        constexpr std::size_t kKept = 4'096;
        static std::vector<std::byte> bytes(std::size_t{1} << 20);
        const ssize_t got = ::recv(connection_.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        // The daemon answers whatever is sound.
        if (got == 0 || (got < 0 && errno != EAGAIN)) find("was not answered, error", got == 0 ? 0 : errno, 0, 0);
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

std::vector<std::byte> requestFor(const char* name, const std::vector<std::string>& paths) {
    value::Array::Storage list;
    for (const std::string& path : paths) list.emplace_back(path);
    mox::Encoder encoder;
    encoder.value(
        value::Dictionary{{VTKey::request, name}, {VTKey::version, 3U}, {VTKey::paths, value::Array{std::move(list)}}});
    return encoder.take();
}

void measureRegistry() {
    const fuzz::HostileWorld& world = fuzz::HostileWorld::get();
    constexpr int kRounds = 3;
    Client client{world.socketPath()};
    world.settle();  // twice, for the first look at what is installed is in two parts
    for (int round = 0; round < kRounds; ++round) {
        const auto adding = client.measure(requestFor(VTRequest::add, world.addable));
        const auto removing = client.measure(requestFor(VTRequest::remove, world.addable));
        registryTakes = std::max({registryTakes, adding, removing});
    }
    registryTakes += registryTakes / 4;  // in another order, and beside the notices of before
}

}  // namespace

// Before the first input, whose time is limited.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::becomeHost();
    const double slowdown = fuzz::Cost::calibrate();
    fuzz::HostileWorld::make(fuzz::HostileWorld::Size::FUZZ_WORLD);
    // Stays, so that what the daemon knows of this program does: reading it is not what is tried.
    static const bench::RawConnection* const other = [] {
        auto* const connection = new bench::RawConnection{fuzz::HostileWorld::get().socketPath()};
        connection->shakeHands();
        return connection;
    }();
    measureRegistry();
    std::fprintf(stderr, "%zu plug-ins; this build takes %.1f times as long; the registry takes %td KiB; client %d\n",
                 fuzz::HostileWorld::get().plugIns.size(), slowdown, registryTakes >> 10, other->fd());
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
            const std::vector<std::byte> body = generator.next(token);
            client.ask(body, generator.registers()   ? registryTakes
                             : generator.annotates() ? kRecordTakes
                             : generator.enables()   ? kDescriptionTakes
                                                     : 0);
            if (const auto held = client.token()) token = *held;
        }
        if (generator.mayHaveAdded()) {  // the world is as it was
            for (const std::string& path : world.addable)
                client.ask(requestFor(VTRequest::remove, {path}), registryTakes);
        }
    }
    if (generator.mayHaveChangedState()) world.restore();
    return 0;
}
