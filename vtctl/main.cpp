#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <variant>

#include "platform/logging/Log.h"
#include "platform/paths/Paths.h"
#include "vtctl/CommandLine.h"
#include "vtctl/Terminal.h"

namespace {

// A stream that was closed for us would be the next file or socket to be opened, and be written to.
void keepStandardStreams() {
    int fd = 0;
    do fd = ::open("/dev/null", O_RDONLY);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0) ::close(fd);
}

int run(int argc, char** argv) {
    const auto asked = readCommandLine(argc, argv);
    const auto* const work = std::get_if<std::function<int()>>(&asked);
    if (work == nullptr) return static_cast<int>(std::get<ExitStatus>(asked));
    const int status = (*work)();
    std::cout.flush();
    if (std::cout) return status;
    terminal::complain("cannot write to standard output");
    return status != 0 ? status : static_cast<int>(ExitStatus::errorReply);
}

}  // namespace

int main(int argc, char** argv) {
    keepStandardStreams();
    // A reader of ours that goes away (a pager, head) ends us quietly.
    std::signal(SIGPIPE, SIG_DFL);
    // Ignored, as some parents leave it, it would keep the exit status of a command from us.
    std::signal(SIGCHLD, SIG_DFL);
    // What the library would log about the connection is said by each command in its own words.
    logging::setSink([](logging::Level, std::string_view) {});
    if (const auto why = paths::misconfiguration()) {
        terminal::complain(*why);
        return static_cast<int>(ExitStatus::usage);
    }
    return run(argc, argv);
}
