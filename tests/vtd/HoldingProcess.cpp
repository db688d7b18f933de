// A program that takes so many holds on the plug-ins at the paths, or none and a process assertion of that identifier
// instead, says how that went and its pid, and goes on until it is killed. A child of its that has all its descriptors
// goes on a while longer.
//
//     holding_process COUNT PATH... | holding_process assert IDENTIFIER

#include <unistd.h>

#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "Velto/VTDaemonClient.h"
#include "Velto/VTProcessAssertion.h"

int main(int argc, char** argv) {
    const std::vector<std::string> names{argv + 2, argv + argc};
    const bool asserts = std::string{argv[1]} == "assert";
    const auto assertion = VTProcessAssertion::take(asserts ? names.at(0) : "org.example.nobody");
    std::string said = assertion ? "holds" : assertion.error().localizedDescription();

    VTDaemonClient client;
    for (int left = asserts ? 0 : std::stoi(argv[1]); left > 0; --left) {
        std::promise<std::string> answer;
        client.holdPlugins(names, VTHoldPlugIn, [&](const mox::Object& reply) {
            const auto error = VTDaemonClient::errorInReply(reply);
            answer.set_value(error ? error->localizedDescription() : "holds");
        });
        said = answer.get_future().get();
    }
    if (::fork() == 0) {
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::close(fd);
        ::sleep(3);
        ::_exit(0);
    }
    std::cout << said << ' ' << ::getpid() << std::endl;
    for (;;) ::pause();
}
