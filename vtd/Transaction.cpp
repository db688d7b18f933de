#include "vtd/Transaction.h"

#include <new>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "Velto/VTError.h"
#include "Velto/VTProtocol.h"
#include "Velto/VTValueHelpers.h"
#include "platform/text/Format.h"
#include "vtd/Probes.h"
#include "vtd/RequestPaths.h"
#include "vtd/VTDMoxClient.h"
#include "vtd/VTDServer.h"

namespace {

constexpr char kNoSuchPlugIn[] = "no such plugin (uuid not found)";

}  // namespace

struct Transaction::Handler {
    std::string_view name;
    void (Transaction::*run)();
};

const Transaction::Handler* Transaction::handlerNamed(std::string_view name) {
    static constexpr Handler kHandlers[] = {
        {VTRequest::add, &Transaction::addPlugIns},           {VTRequest::remove, &Transaction::removePlugIns},
        {VTRequest::bulk, &Transaction::bulkPlugIns},         {VTRequest::match, &Transaction::matchPlugIns},
        {VTRequest::ready, &Transaction::readyPlugIns},       {VTRequest::access, &Transaction::accessPlugIns},
        {VTRequest::annotate, &Transaction::annotatePlugIns}, {VTRequest::lock, &Transaction::lockDownPlugIns},
    };
    for (const Handler& handler : kHandlers) {
        if (handler.name == name) return &handler;
    }
    return nullptr;
}

Transaction::Transaction(mox::Request request, std::shared_ptr<VTDMoxClient> client,
                         std::shared_ptr<RequestPaths> paths)
    : client_{std::move(client)},
      request_{std::move(request)},
      annotationRound_{*client_->server()},
      reply_{request_},
      paths_{std::move(paths)},
      account_{paths_ && paths_->outcome() == RequestPaths::Outcome::done ? paths_->account() : own_} {}

const std::shared_ptr<VTDServer>& Transaction::server() const {
    return client_->server();
}

std::shared_ptr<mox::Connection> Transaction::connection() const {
    return client_->connection();
}

void Transaction::dispatch() {
    const effort::Charging charging{account_};
    const auto nameValue = request().find(VTKey::request);
    const std::optional<std::string_view> name = nameValue ? nameValue->string() : std::nullopt;
    const auto versionValue = request().find(VTKey::version);
    setVersion(versionValue ? versionValue->unsignedInteger().value_or(0) : 0);

    if (version() < VTOldestProtocolVersion || version() > VTProtocolVersion) {
        fail(VTErrorVersion, text::format("unsupported protocol version {} (current {})",
                                          static_cast<std::int32_t>(version()), VTProtocolVersion));
        return;
    }
    if (!client_->acceptWork()) return;

    server()->debug("client {} request {}", client_->pid(), name.value_or("(null)"));
    probes::request(client_->pid(), [&] { return name.value_or("(null)"); });
    if (!name) {
        fail(VTErrorRequest, "invalid request format (missing type)");
    } else if (const Handler* const handler = handlerNamed(*name)) {
        handler_ = handler;
        (this->*handler->run)();
    } else {
        fail(VTErrorRequest, "unrecognized request");
    }
}

void Transaction::goOn() {
    isToGoOn_ = false;
    const effort::Charging charging{account_};
    if (client_->acceptWork()) (this->*handler_->run)();
}

bool Transaction::marshalPaths(const PathHandler& handler, const Settlement& settle) {
    const auto malformed = [this] {
        fail(VTErrorRequest, "invalid request format");
        return false;
    };
    const auto paths = mox_dictionary_get_array(request(), VTKey::paths);
    if (!paths) return malformed();
    if (paths->count() == 0) return true;
    if (!paths_) return malformed();
    if (paths_->outcome() != RequestPaths::Outcome::done) return failForEffort();
    if (!mayGoOn()) return false;

    std::size_t element = 0;
    const bool all = paths->forEachElement([&](mox::View sent) {
        const std::optional<std::string_view> path = sent.string();
        if (!path) return settle() && malformed();
        if (!path->starts_with('/')) {
            if (settle()) fail(VTErrorPath, text::format("absolute path required: {}", *path));
            return false;
        }
        const auto& canonical = (*paths_)[element++].canonical;
        return handler(canonical ? *canonical : std::string{*path}, canonical.has_value());
    });
    return all && settle();
}

bool Transaction::processPaths(const PathHandler& handler, const Settlement& settle) {
    if (!marshalPaths(handler, settle)) return false;
    done();
    return true;
}

bool Transaction::processUuidList(const PlugInHandler& handler) {
    constexpr std::uint64_t kUnitsAnElement = 20;
    const auto malformed = [this](const char* message) {
        fail(VTErrorRequest, message);
        return false;
    };
    const auto uuids = mox_dictionary_get_array(request(), VTKey::uuids);
    if (!uuids) return malformed("invalid request format (uuid)");

    static_cast<void>(account_.take(uuids->count() * kUnitsAnElement));
    if (!mayGoOn()) return false;

    std::unordered_set<value::Uuid> known;
    return uuids->forEachElement([&](mox::View element) {
        const std::optional<value::Uuid> sent = element.uuid();
        if (!sent) return malformed("invalid request (bad uuid array)");
        if (!known.insert(*sent).second) return true;
        account_.grantShares(1);
        // An object of its own, as the protocol has it: want of memory is answered, and does not end the daemon.
        const std::unique_ptr<const value::Uuid> uuid{new (std::nothrow) value::Uuid{*sent}};
        if (!uuid) return malformed("invalid request (uuid allocation failure)");
        const auto plugIn = server()->findPlugIn(*uuid);
        if (!plugIn) return malformed(kNoSuchPlugIn);
        return handler(plugIn);
    });
}

bool Transaction::mustBeCurrent(const VTDPlugIn& plugIn) {
    if (server()->isCurrent(plugIn)) return true;
    fail(VTErrorRequest, kNoSuchPlugIn);
    return false;
}

bool Transaction::mayGoOn() {
    return !account_.isSpent() || failForEffort();
}

bool Transaction::failForEffort() {
    const auto name = request().find(VTKey::request);
    server()->log("client {}: the request {} is too much work ({} us spent)", client_->pid(),
                  name ? logging::excerpt(name->string().value_or("")) : "(null)",
                  account_.spent() / effort::kUnitsAMicrosecond);
    fail(VTErrorRequest, "the request is too much work");
    return false;
}

void Transaction::done() {
    annotationRound_.end();
    if (server()->verbose() >= 2) server()->debug("Replying {}", reply_);
    probes::requestOutput(client_->pid(), [this] { return description(reply_); });
    if (const auto peer = connection()) peer->send(reply_);
}

void Transaction::fail(std::int64_t code, const std::optional<std::string>& message) {
    reply_.set(VTKey::errorCode, static_cast<std::uint64_t>(code));
    if (message) reply_.set(VTKey::error, *message);
    done();
}

void Transaction::fail(std::int64_t code, const value::Error& error) {
    if (error.domain == VTErrorDomain) {
        fail(error.code, error.message);
    } else {
        fail(code, error.localizedDescription());
    }
}
