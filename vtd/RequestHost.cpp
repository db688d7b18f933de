#include "vtd/RequestHost.h"

#include <limits>
#include <utility>

#include "Velto/VTProtocol.h"
#include "platform/file/File.h"
#include "platform/mox/ProcessIdentity.h"

std::shared_ptr<RequestHost> RequestHost::of(const mox::Request& request) {
    const auto pid = request.view().find(VTKey::forPid);
    const auto path = request.view().find(VTKey::forHost);
    if (!pid && !path) return nullptr;
    const auto explain = request.view().find(VTKey::explain);
    const auto name = request.view().find(VTKey::request);
    const bool isAsked = explain && explain->boolean().value_or(false) && name && name->string() == VTRequest::match;
    if (!isAsked) return nullptr;
    auto host = std::make_shared<RequestHost>();
    if (pid && path) return host;
    if (pid) {
        const std::uint64_t number =
            pid->unsignedInteger().value_or(static_cast<std::uint64_t>(pid->signedInteger().value_or(0)));
        if (number == 0 || number > std::numeric_limits<pid_t>::max()) return host;
        host->pid_ = static_cast<pid_t>(number);
        host->name_ = std::to_string(number);
    } else if (const auto text = path->string(); text && text->starts_with('/')) {
        host->path_.emplace(*text);
        host->name_ = *text;
    }
    return host;
}

void RequestHost::resolve() {
    if (pid_) {
        if (auto identity = mox::identityOf(*pid_)) host_ = std::make_shared<const Host>(*std::move(identity));
    } else if (path_) {
        const auto canonical = file::canonicalPath(*path_);
        if (!canonical) return;
        if (auto identity = mox::identityOfBundle(*canonical)) {
            host_ = std::make_shared<const Host>(*std::move(identity));
        }
    }
}
