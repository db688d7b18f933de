#include <csignal>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Velto/VTProtocol.h"
#include "platform/logging/Log.h"
#include "vtctl/Call.h"
#include "vtctl/Match.h"

namespace {

ExitStatus run(int argc, char** argv) {
    CLI::App app{"Speaks to vtd, the plug-in daemon, as a host does.", "vtctl"};
    app.require_subcommand(1);
    app.fallthrough();  // -S may stand behind the verb too
    app.set_version_flag("--version", std::string{VTD_VERSION});
    std::string serviceName = VTDefaultServiceName;
    app.add_option("-S,--service", serviceName, "The daemon's service name")->capture_default_str();

    MatchOptions match;
    CLI::App* matchCommand = app.add_subcommand("match", "Show the plug-ins that a host would get");
    matchCommand->add_option("rules", match.patterns,
                             "KEY=PATTERN: what the plug-in must have; a KEY given again accepts either pattern");
    matchCommand->add_option("--rules", match.rulesFile, "A file of rules: a property list or JSON");
    matchCommand->add_option("--flags", match.flags, "Discovery flags, decimal or 0x...")->capture_default_str();
    matchCommand->add_flag("--json", match.asJson, "Print the forms as JSON");

    std::string name;
    std::string object;
    CLI::App* callCommand = app.add_subcommand("call", "Send a request made of JSON and print the reply");
    callCommand->add_option("name", name, "The request's name; - reads a JSON object a line from standard input")
        ->required();
    callCommand->add_option("json", object, "The request's further members, as a JSON object");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitStatus::success : ExitStatus::usage;
    }
    if (matchCommand->parsed()) {
        match.serviceName = serviceName;
        return runMatch(match);
    }
    if (name != "-") return runCall(serviceName, name, object);
    if (!object.empty()) {
        std::cerr << "vtctl: call - takes its requests from standard input alone\n";
        return ExitStatus::usage;
    }
    return runCallLines(serviceName, std::cin);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader of ours that goes away (a pager, head) ends us quietly.
    std::signal(SIGPIPE, SIG_DFL);
    // What the library would log about the connection is said by each command in its own words.
    logging::setSink([](logging::Level, std::string_view) {});
    return static_cast<int>(run(argc, argv));
}
