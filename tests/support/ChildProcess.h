#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <string>

namespace support {

// Runs the work in a forked child, for what changes a process for good (namespaces, filters of system calls), and
// answers the text it returned. A child that dies says so.
inline std::string inChildProcess(const std::function<std::string()>& work) {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child < 0) return "no child";
    if (child == 0) {
        const std::string text = work();
        const bool told = ::write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::_exit(told ? 0 : 1);
    }
    ::close(ends[1]);
    std::string answer;
    std::array<char, 4096> buffer;
    for (ssize_t got; (got = ::read(ends[0], buffer.data(), buffer.size())) > 0;) answer.append(buffer.data(), got);
    ::close(ends[0]);
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) answer += "the child died";
    return answer;
}

}  // namespace support
