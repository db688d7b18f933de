#include "vtctl/Verify.h"

#include <algorithm>
#include <iostream>

#include "vtctl/Json.h"
#include "vtctl/Paths.h"
#include "vtctl/Terminal.h"

namespace {

const char* nameOf(diagnosis::Problem::Kind kind) {
    return kind == diagnosis::Problem::Kind::fault ? "error" : "warning";
}

}  // namespace

void printProblems(const std::vector<diagnosis::Problem>& problems, std::ostream& stream) {
    for (const auto& problem : problems) {
        stream << terminal::shown(problem.file) << ": " << nameOf(problem.kind) << ": ";
        if (!problem.key.empty()) stream << terminal::shown(problem.key) << ": ";
        stream << terminal::shown(problem.what);
        if (!problem.remedy.empty()) stream << " (" << terminal::shown(problem.remedy) << ")";
        stream << "\n";
    }
}

ExitStatus runVerify(const std::vector<std::string>& paths, bool asJson) {
    const auto absolute = absolutePaths(paths);
    if (!absolute) return ExitStatus::usage;
    std::vector<diagnosis::Problem> problems;
    for (const std::string& path : *absolute) {
        for (auto& problem : diagnosis::ofPath(path)) problems.push_back(std::move(problem));
    }
    if (asJson) {
        json::Json all = json::Json::array();
        for (const auto& problem : problems) {
            json::Json one{{"kind", nameOf(problem.kind)}, {"file", problem.file}, {"what", problem.what}};
            if (!problem.key.empty()) one["key"] = problem.key;
            if (!problem.remedy.empty()) one["remedy"] = problem.remedy;
            all.push_back(std::move(one));
        }
        std::cout << json::indentedText(all) << "\n";
    } else {
        printProblems(problems, std::cout);
    }
    const bool isSound = std::none_of(problems.begin(), problems.end(), [](const auto& problem) {
        return problem.kind == diagnosis::Problem::Kind::fault;
    });
    return isSound ? ExitStatus::success : ExitStatus::usage;
}
