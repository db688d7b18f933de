#include "vtctl/Access.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <optional>

#include "Velto/VTProtocol.h"
#include "Velto/VTSandboxExtension.h"
#include "Velto/VTValueHelpers.h"
#include "platform/sandbox/Sandbox.h"
#include "platform/text/Utf8.h"
#include "vtctl/Connection.h"
#include "vtctl/Json.h"
#include "vtctl/PlugIns.h"
#include "vtctl/Terminal.h"

namespace {

struct Granted {
    ExitStatus status = ExitStatus::success;
    std::vector<plugins::PlugIn> plugIns;
    std::vector<std::string> tokens;  // one for each
};

Granted request(const std::string& serviceName, const std::vector<std::string>& words) {
    VTDaemonClient client{serviceName};
    plugins::Resolution resolved = plugins::resolve(client, serviceName, words, plugins::Which::onePerIdentifier);
    if (resolved.status != ExitStatus::success) {
        if (resolved.status == ExitStatus::usage) terminal::complain("no token was asked for");
        return {resolved.status, {}, {}};
    }
    mox::Dictionary message = client.request(VTRequest::access);
    VTDaemonClient::set(message, plugins::uuidsOf(resolved.plugIns));
    message.set(VTKey::flags, std::uint64_t{0});
    const mox::Object reply = sendAndWait(client, message);
    const ExitStatus status =
        reportErrorIn(client, reply, serviceName, {{VTErrorRequest, "`vtctl match` shows the plug-ins there are"}});
    if (status != ExitStatus::success) return {status, {}, {}};
    std::vector<std::string> tokens;
    if (const auto extensions = mox_dictionary_get_array(reply.view(), VTKey::extensions)) {
        extensions->forEachElement(
            [&tokens](mox::View token) { tokens.emplace_back(token.string().value_or(std::string_view{})); });
    }
    if (tokens.size() != resolved.plugIns.size()) {
        terminal::complain("the reply does not hold a token for each plug-in");
        return {ExitStatus::errorReply, {}, {}};
    }
    return {status, std::move(resolved.plugIns), std::move(tokens)};
}

// Nothing on success, else the errno.
std::optional<int> copyToOutput(int file) {
    std::array<char, std::size_t{64} << 10> chunk;
    while (true) {
        const ssize_t got = ::read(file, chunk.data(), chunk.size());
        if (got == 0) return {};
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno;
        for (ssize_t written = 0; written < got;) {
            const ssize_t put = ::write(STDOUT_FILENO, chunk.data() + written, static_cast<std::size_t>(got - written));
            if (put < 0 && errno != EINTR) return errno;
            if (put > 0) written += put;
        }
    }
}

ExitStatus failed(const std::string& why) {
    terminal::complain(why);
    return ExitStatus::errorReply;
}

}  // namespace

ExitStatus runAccess(const std::string& serviceName, const std::vector<std::string>& words, bool asJson) {
    const Granted granted = request(serviceName, words);
    if (granted.status != ExitStatus::success) return granted.status;
    json::Json list = json::Json::array();
    for (std::size_t i = 0; i < granted.tokens.size(); ++i) {
        const plugins::PlugIn& plugIn = granted.plugIns[i];
        if (asJson) {
            json::Json entry{{"uuid", plugIn.uuid.string()}, {"token", granted.tokens[i]}};
            if (!plugIn.identifier.empty()) entry["identifier"] = plugIn.identifier;
            if (!plugIn.path.empty()) entry["path"] = plugIn.path;
            list.push_back(std::move(entry));
        } else {
            std::cout << terminal::shown(granted.tokens[i]) << "\n";
        }
    }
    if (asJson) std::cout << json::indentedText(list) << "\n";
    return ExitStatus::success;
}

ExitStatus runOpen(const std::string& serviceName, const std::string& word, const std::string& path) {
    const Granted granted = request(serviceName, {word});
    if (granted.status != ExitStatus::success) return granted.status;
    const plugins::PlugIn& plugIn = granted.plugIns.front();
    if (!path.starts_with('/') && plugIn.path.empty()) {
        terminal::complain("where " + plugIn.title() +
                           " lies is not known to its hosts: give the file's absolute path");
        return ExitStatus::usage;
    }
    sandbox::setDaemonServiceName(serviceName);
    VTSandboxExtension extension{granted.tokens.front()};
    extension.consume();
    if (extension.handle() == -1)
        return failed("the daemon's sandbox service refuses the token it gave for " + plugIn.title());
    const auto file = sandbox::openFile(extension.handle(), path.starts_with('/') ? path : plugIn.path + '/' + path);
    if (!file) return failed(file.error().localizedDescription());
    if (const auto error = copyToOutput(file->get())) {
        return failed(value::posixError(*error, "cannot copy " + path).localizedDescription());
    }
    return ExitStatus::success;
}
