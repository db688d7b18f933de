#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include <malloc.h>

#include "Velto/VTAssertion.h"
#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "platform/notify/Notify.h"
#include "platform/paths/Paths.h"
#include "vtd/VTDServer.h"

namespace {

enum ExitStatus { kStopped = 0, kFailed = 1, kMisused = 2 };

struct Options {
    int cacheLimit = 150;
    std::optional<std::string> database;  // none: the annotation store's default file
    std::string service = VTDefaultServiceName;
    unsigned verbose = 0;
};

// Nothing when the command line is wrong; getopt has then said why in its own way.
std::optional<Options> readOptions(int argc, char* const* argv) {
    Options options;
    for (int option; (option = ::getopt(argc, argv, "c:d:S:v")) != -1;) {
        switch (option) {
            case 'c': options.cacheLimit = std::atoi(optarg); break;  // NOLINT(cert-err34-c): no number reads as 0
            case 'd': options.database = optarg; break;
            case 'S': options.service = optarg; break;
            case 'v': ++options.verbose; break;
            default: return {};
        }
    }
    if (optind < argc) return {};
    return options;
}

int misused() {
    constexpr std::string_view kUsage = "Usage: vtd [-S servicename] [-v]\n";
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, kUsage.data(), kUsage.size());
    return kMisused;
}

// Other threads are at work by now, and nothing of the process may be taken down beneath them.
[[noreturn]] void end(ExitStatus status) {
    std::quick_exit(status);
}

}  // namespace

int main(int argc, char** argv) {
    const std::optional<Options> options = readOptions(argc, argv);
    if (!options) return misused();

    // One heap for all threads: which of them happens to serve a large discovery must not decide how much memory stays
    // behind. They seldom allocate at the same time.
    ::mallopt(M_ARENA_MAX, 1);

    VTSetAssertionPolicy(VTAssertionPolicy::endProcess);
    ::signal(SIGPIPE, SIG_IGN);  // a peer or a log reader that is gone is an error of the write, not our end

    if (const auto why = paths::misconfiguration()) {
        logging::error(*why);
        end(kFailed);
    }
    auto server = VTDServer::initForService(options->service, options->database);
    if (!server) {
        logging::error("unable to construct server");
        end(kFailed);
    }
    server->setVerbose(options->verbose);
    server->setCacheLimit(static_cast<std::uint32_t>(options->cacheLimit));
    if (const auto error = server->run()) {
        logging::error(error->localizedDescription());
        server.reset();  // and with it a socket that it has made already
        end(kFailed);
    }
    server.reset();
    notify::settlePosts(std::chrono::milliseconds{100});  // who observes has nothing else to go by
    end(kStopped);
}
