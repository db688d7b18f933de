#include "vtctl/CommandLine.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <utility>

#include <CLI/CLI.hpp>

#include "Velto/VTProtocol.h"
#include "vtctl/Access.h"
#include "vtctl/Call.h"
#include "vtctl/Connection.h"
#include "vtctl/Elect.h"
#include "vtctl/Exclusions.h"
#include "vtctl/Explain.h"
#include "vtctl/Hold.h"
#include "vtctl/Match.h"
#include "vtctl/Ready.h"
#include "vtctl/Register.h"
#include "vtctl/Terminal.h"
#include "vtctl/verify/Report.h"

namespace {

using Words = std::vector<std::string>;

// What stands on the line. Verbs keep it alive and read it when they run.
struct Line {
    std::string serviceName = VTDefaultServiceName;
    Words words;    // what the verb is about: plug-ins, paths, rules
    Words command;  // behind "--"
    bool asJson = false;
    std::function<int()> chosen;
};
using SharedLine = std::shared_ptr<Line>;

CLI::App* addVerb(CLI::App& app, const SharedLine& line, const char* name, const char* help, std::function<int()> run) {
    CLI::App* verb = app.add_subcommand(name, help);
    verb->callback([line = line.get(), run = std::move(run)] { line->chosen = run; });
    return verb;
}

int number(ExitStatus status) {
    return static_cast<int>(status);
}

int refused(const char* why) {
    terminal::complain(why);
    return number(ExitStatus::usage);
}

void addMatch(CLI::App& app, const SharedLine& line) {
    const auto options = std::make_shared<MatchOptions>();
    CLI::App* verb =
        addVerb(app, line, "match", "Show the plug-ins that a host would get", [line = line.get(), options] {
            options->serviceName = line->serviceName;
            options->asJson = line->asJson;
            return number(runMatch(*options));
        });
    verb->add_option("rules", options->patterns,
                     "KEY=PATTERN: what the plug-in must have; a KEY given again accepts either pattern");
    verb->add_option("--rules", options->rulesFile, "A file of rules: a property list or JSON");
    verb->add_option("--flags", options->flags, "Discovery flags, decimal or 0x...")->capture_default_str();
    verb->add_flag("--json", line->asJson, "Print the forms as JSON");
    verb->add_flag("--rejected", options->tellsRejected, "Tell what else there is, and why it is not offered");
}

void addExplain(CLI::App& app, const SharedLine& line) {
    const auto options = std::make_shared<ExplainOptions>();
    CLI::App* verb = addVerb(app, line, "explain", "Say why a plug-in is offered or not", [line = line.get(), options] {
        options->serviceName = line->serviceName;
        options->asJson = line->asJson;
        return number(runExplain(*options));
    });
    verb->add_option("plugin", options->subject, "A UUID, an identifier, a part of one, or the path of a bundle")
        ->required();
    verb->add_option("rules", options->patterns, "KEY=PATTERN, as for match");
    verb->add_option("--host", options->host, "The host that asks: a pid, or the path of an application");
    verb->add_flag("--json", line->asJson, "Print the explanations as JSON");
}

void addVerify(CLI::App& app, const SharedLine& line) {
    struct Wish {
        bool asSarif = false, keys = false, rules = false;
    };
    const auto wish = std::make_shared<Wish>();
    CLI::App* verb =
        addVerb(app, line, "verify", "Say all that is wrong with plug-ins, applications, SDK files, without the daemon",
                [line = line.get(), wish] {
                    if (wish->keys) return number(runListKeys());
                    if (wish->rules) return number(runListRules());
                    if (line->words.empty()) return refused("verify takes the paths of what is to be verified");
                    return number(runVerify(line->words, wish->asSarif  ? verify::Form::sarif
                                                         : line->asJson ? verify::Form::json
                                                                        : verify::Form::lines));
                });
    verb->add_option("paths", line->words, "Plug-ins' folders, applications, or SDK files");
    CLI::Option* json = verb->add_flag("--json", line->asJson, "Print the problems as JSON");
    verb->add_flag("--sarif", wish->asSarif, "Print them as SARIF, which editors and CI systems read")->excludes(json);
    verb->add_flag("--keys", wish->keys, "List the keys that are read instead");
    verb->add_flag("--rules", wish->rules, "List the rules that problems are named by");
}

void addCall(CLI::App& app, const SharedLine& line) {
    const auto name = std::make_shared<std::string>();
    const auto object = std::make_shared<std::string>();
    CLI::App* verb = addVerb(app, line, "call", "Send a request made of JSON and print the reply",
                             [line = line.get(), name, object] {
                                 if (*name != "-") return number(runCall(line->serviceName, *name, *object));
                                 if (object->empty()) return number(runCallLines(line->serviceName, std::cin));
                                 return refused("call - takes its requests from standard input alone");
                             });
    verb->add_option("name", *name, "The request's name; - reads a JSON object a line from standard input")->required();
    verb->add_option("json", *object, "The request's further members, as a JSON object");
}

void addRegistration(CLI::App& app, const SharedLine& line) {
    addVerb(app, line, "add", "Register the plug-ins at the paths",
            [line = line.get()] { return number(runAdd(line->serviceName, line->words)); })
        ->add_option("paths", line->words, "The plug-ins' folders")
        ->required();
    addVerb(app, line, "remove", "Unregister the plug-ins at the paths",
            [line = line.get()] { return number(runRemove(line->serviceName, line->words)); })
        ->add_option("paths", line->words, "The plug-ins' folders")
        ->required();
}

void addElection(CLI::App& app, const SharedLine& line, const char* name, const char* help, Election election) {
    addVerb(app, line, name, help,
            [line = line.get(), election] { return number(runElect(line->serviceName, line->words, election)); })
        ->add_option("plugins", line->words, "Each a UUID, an identifier, or a part of one that no other has")
        ->required();
}

void addHolds(CLI::App& app, const SharedLine& line) {
    const auto applications = std::make_shared<bool>(false);
    CLI::App* hold = addVerb(app, line, "hold", "Put plug-ins on hold while a command runs, or until interrupted",
                             [line = line.get(), applications] {
                                 return runHold({line->serviceName, line->words, *applications, line->command});
                             });
    hold->add_option("paths", line->words, "The plug-ins' folders; behind -- a command with its arguments")->required();
    hold->add_flag("--app", *applications,
                   "The paths are those of applications: all their plug-ins, unless one is busy");

    const auto token = std::make_shared<std::string>();
    addVerb(app, line, "unhold", "Release a hold",
            [line = line.get(), token] { return number(runUnhold(line->serviceName, *token)); })
        ->add_option("token", *token, "The token that `vtctl hold` printed")
        ->required();
}

void addExclusions(CLI::App& app, const SharedLine& line) {
    addVerb(app, line, "exclude", "Hide plug-ins from all hosts",
            [line = line.get()] { return number(runExclude(line->words)); })
        ->add_option("rules", line->words, "KEY=PATTERN: what an excluded plug-in has, all of it")
        ->required();
    addVerb(app, line, "exclusions", "List what is excluded", [line = line.get()] {
        return number(runExclusions(line->asJson));
    })->add_flag("--json", line->asJson, "Print the rules as JSON");
    const auto place = std::make_shared<std::int64_t>(0);
    addVerb(app, line, "include", "Take an exclusion away", [place] { return number(runInclude(*place)); })
        ->add_option("number", *place, "Its number in `vtctl exclusions`")
        ->required();
}

void addUse(CLI::App& app, const SharedLine& line) {
    CLI::App* ready = addVerb(app, line, "ready",
                              "Have plug-ins made ready for this process, while a command runs or until interrupted",
                              [line = line.get()] {
                                  return runReady({line->serviceName, line->words, line->command, line->asJson});
                              });
    ready->add_option("plugins", line->words, "As for enable; behind -- a command with its arguments")->required();
    ready->add_flag("--json", line->asJson, "Print what was registered as JSON");

    const auto open = std::make_shared<bool>(false);
    CLI::App* access =
        addVerb(app, line, "access", "Get tokens that open the folders of plug-ins", [line = line.get(), open] {
            if (!*open) return number(runAccess(line->serviceName, line->words, line->asJson));
            if (line->words.size() != 2) return refused("access --open takes a plug-in and the path of a file in it");
            return number(runOpen(line->serviceName, line->words[0], line->words[1]));
        });
    access->add_option("plugins", line->words, "As for enable")->required();
    access->add_flag("--open", *open, "PLUGIN PATH: copy a file of the plug-in to standard output");
    access->add_flag("--json", line->asJson, "Print the tokens as JSON, with whose they are");
}

// The verbs that run a command take all behind the first "--" for it; to every other verb "--" says that what follows
// are no options.
bool takesCommand(const Words& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "-S" || arguments[i] == "--service" || arguments[i] == "--timeout") {
            ++i;
        } else if (!arguments[i].starts_with('-')) {
            return arguments[i] == "hold" || arguments[i] == "ready";
        }
    }
    return false;
}

}  // namespace

std::variant<std::function<int()>, ExitStatus> readCommandLine(int argc, const char* const* argv) {
    const auto line = std::make_shared<Line>();
    CLI::App app{"Speaks to vtd, the plug-in daemon, as hosts and installers do.", "vtctl"};
    app.require_subcommand(1);
    app.fallthrough();  // -S may stand behind the verb too
    app.set_version_flag("--version", std::string{VTD_VERSION});
    app.add_option("-S,--service", line->serviceName, "The daemon's service name")->capture_default_str();
    app.add_option_function<double>(
           "--timeout", [](double seconds) { setPatience(std::chrono::milliseconds{std::llround(seconds * 1000)}); },
           "How many seconds to wait for each answer of the daemon (30)")
        ->check(CLI::Range(0.001, 86400.0));
    addMatch(app, line);
    addExplain(app, line);
    addVerify(app, line);
    addElection(app, line, "enable", "Choose plug-ins for use", Election::use);
    addElection(app, line, "disable", "Choose plug-ins not to be used", Election::ignore);
    addElection(app, line, "default", "Take the choice about plug-ins back", Election::undecided);
    addExclusions(app, line);
    addHolds(app, line);
    addUse(app, line);
    addRegistration(app, line);
    addCall(app, line);

    Words arguments{argv + std::min(argc, 1), argv + argc};
    if (takesCommand(arguments)) {
        const auto mark = std::find(arguments.begin(), arguments.end(), "--");
        if (mark != arguments.end()) {
            line->command.assign(mark + 1, arguments.end());
            arguments.erase(mark, arguments.end());
            if (line->command.empty()) {
                terminal::complain("no command stands behind --");
                return ExitStatus::usage;
            }
        }
    }
    std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
    try {
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitStatus::success : ExitStatus::usage;
    }
    return [line] { return line->chosen(); };
}
