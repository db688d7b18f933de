#include "vtd/VTDMoxClient.h"

#include <map>
#include <mutex>
#include <utility>
#include <variant>

#include "platform/mox/PeerProgram.h"
#include "platform/queue/Errands.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/RequestPaths.h"
#include "vtd/Transaction.h"
#include "vtd/VTDServer.h"

namespace {

constexpr char kAllowedPlugInsEntitlement[] = "halvern.developer.velto.allowedplugins";

constexpr std::uint32_t kCountReportedEvery = 1000;
constexpr unsigned kUnexpectedLogged = 16;  // of one client: it must not fill the log

std::shared_ptr<VTBundle> bundleOf(const mox::PeerIdentity& peer) {
    return peer.program && peer.program->bundle ? VTBundle::initWithMoxBundle(peer.program->bundle) : nullptr;
}

}  // namespace

std::shared_ptr<VTDMoxClient> VTDMoxClient::initWithConnection(const std::shared_ptr<mox::Connection>& connection,
                                                               std::shared_ptr<VTDServer> server) {
    std::shared_ptr<VTDMoxClient> client{new VTDMoxClient{connection, std::move(server)}};
    client->server_->debug("client {} {}", client->pid(), connection->identity()->executablePath().value_or(""));
    probes::clientNew(client->pid());
    connection->setContext(client);
    connection->setEventHandler([client](const mox::Event& event) { client->handleEvent(event); });
    connection->resume();
    return client;
}

VTDMoxClient::VTDMoxClient(const std::shared_ptr<mox::Connection>& connection, std::shared_ptr<VTDServer> server)
    : connection_{connection},
      pid_{connection->pid()},
      server_{std::move(server)},
      bundle_{bundleOf(*connection->identity())},
      program_{connection->identity()->program},
      task_{connection->identity()},
      lane_{server_->turns(), owner()} {}

VTDMoxClient::~VTDMoxClient() = default;

void VTDMoxClient::dying() {
    server_->debug("client {} termination imminent", pid());
}

// What waits in the lane goes without having been looked at: nobody would get the answers.
void VTDMoxClient::dead() {
    server_->unholdClient(*this, [self = shared_from_this(), pid = pid()] {
        self->server_->debug("client {} is dead", pid);
        probes::clientDone(pid);
    });
    setAcceptWork(false);
    lane_.drop();
}

pid_t VTDMoxClient::pid() const {
    return connection_.expired() ? 0 : pid_;
}

std::optional<value::Value> VTDMoxClient::entitlementValueForKey(std::string_view key) const {
    auto value = task_.value(key);
    if (!value) {
        server_->log("error retrieving entitlements for pid {}", pid());
        return {};
    }
    return *std::move(value);
}

bool VTDMoxClient::hasEntitlement(std::string_view key) const {
    const auto value = entitlementValueForKey(key);
    return value && *value != value::Value{false};
}

// What restricts a host may be five thousand patterns, and a host may connect four hundred times.
class VTDMoxClient::Restrictions {
public:
    static Restrictions& shared() {
        static Restrictions& restrictions = *new Restrictions;  // queues may still ask while the process ends
        return restrictions;
    }

    std::shared_ptr<const Restriction> of(const std::shared_ptr<const mox::PeerProgram>& program,
                                          const value::Dictionary* allowed) {
        const std::lock_guard lock{mutex_};
        std::erase_if(byProgram_, [](const auto& known) { return known.first.expired(); });
        std::weak_ptr<const Restriction>& known = byProgram_[program];
        if (auto restriction = known.lock()) return restriction;
        auto read = std::make_shared<Restriction>();
        if (allowed != nullptr) read->allowed.emplace(*allowed);
        known = read;
        return read;
    }

private:
    std::mutex mutex_;
    std::map<std::weak_ptr<const mox::PeerProgram>, std::weak_ptr<const Restriction>, std::owner_less<>> byProgram_;
};

const VTDMoxClient::Restriction* VTDMoxClient::restriction() const {
    std::call_once(restrictionRead_, [this] {
        const auto entitlement = entitlementValueForKey(kAllowedPlugInsEntitlement);
        if (entitlement) restriction_ = Restrictions::shared().of(program_, entitlement->dictionary());
    });
    return restriction_.get();
}

std::string VTDMoxClient::description() const {
    const auto peer = connection();
    const auto* const address = static_cast<const void*>(this);
    if (!peer) return text::format("<VTDMoxClient {} NO CONNECTION>", address);
    return text::format("<VTDMoxClient {} pid={} con={}>", address, pid(), peer->description());
}

void VTDMoxClient::handleEvent(const mox::Event& event) {
    if (const auto* const request = std::get_if<mox::Request>(&event)) {
        handleRequest(*request);
    } else {
        handleOther(std::get<mox::Object>(event));
    }
}

void VTDMoxClient::handleRequest(const mox::Request& request) {
    if (server_->verbose() >= 2) server_->debug("incoming request {}", request.view());
    probes::requestInput(pid(), [&] { return mox::description(request.view()); });
    auto paths = RequestPaths::of(request);
    const bool isReady = !paths || paths->resolveAtHand();
    // The transaction is made where it runs: until then the request and the client are all there is to it.
    auto work = [request, paths, client = shared_from_this()]() mutable {
        const auto transaction = std::make_shared<Transaction>(std::move(request), std::move(client), std::move(paths));
        transaction->client()->countRequest();
        transaction->dispatch();
        transaction->client()->goOnWith(transaction);
    };
    if (isReady) return lane_.async(std::move(work));

    const auto ticket = lane_.asyncWhenReady(std::move(work));
    queue::Errands::shared().run(
        owner(),
        [paths, weak = weak_from_this()] {
            const auto isWanted = [&] {  // nothing keeps the client while this blocks
                const auto client = weak.lock();
                return client && client->acceptWork();
            };
            if (isWanted()) paths->resolve();
        },
        [paths, weak = weak_from_this(), ticket](queue::Errands::Outcome outcome) {
            const bool isDone = outcome == queue::Errands::Outcome::done;
            paths->setOutcome(isDone ? RequestPaths::Outcome::done : RequestPaths::Outcome::refused);
            if (const auto client = weak.lock()) client->lane_.ready(ticket);
        });
}

void VTDMoxClient::goOnWith(const std::shared_ptr<Transaction>& begun) {
    if (!begun->isToGoOn()) return;
    lane_.asyncNext([this, begun] {  // which keeps this
        begun->goOn();
        goOnWith(begun);
    });
}

queue::Owner VTDMoxClient::owner() const {
    const auto peer = connection();
    return peer ? queue::Owner{peer->pid(), peer->identity()->startTime} : queue::Owner{};
}

void VTDMoxClient::handleOther(const mox::Object& object) {
    if (mox::isError(object, mox::ErrorCode::terminationImminent)) {
        dying();
    } else if (mox::isError(object, mox::ErrorCode::connectionInvalid)) {
        dead();
    } else if (object.isError()) {
        server_->log("unexpected error {}", mox::errorDescription(object));
    } else {
        if (unexpectedMessages_ > kUnexpectedLogged) return;
        if (++unexpectedMessages_ > kUnexpectedLogged)
            return server_->log("further unexpected messages of client {} are not logged", pid());
        const auto peer = connection();
        server_->log("unexpected message {} on connection {}", object.view(), peer ? peer->description() : "(null)");
    }
}

void VTDMoxClient::countRequest() {
    ++requestCount_;
    if (requestCount_ % kCountReportedEvery == 0) {
        server_->debug("client {} used {} requests so far", pid(), requestCount_);
    }
}
