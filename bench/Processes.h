#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench {

// Keeps this process, with the threads it has yet to start, on one core, or lets it use all of them again.
void pinToCore(int core);
void unpin();

// A child process that runs the closure, or another program whose standard error goes to a file; killed and waited for
// when the object goes.
class Child {
public:
    explicit Child(const std::function<void()>& work);
    Child(const std::string& program, const std::vector<std::string>& arguments, const std::string& errors);
    ~Child();
    Child(Child&& other) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    std::size_t residentBytes() const;  // VmRSS
    std::string processorTime() const;  // what it has used, in clock ticks

private:
    pid_t pid_;
};

// The real daemon on a world, with a service name of its own and its log in vtd.log there; HALVERN_ROOT of this process
// is set to the world's root. Ready when it has done what it does behind its first answer, and rests.
class Daemon {
public:
    Daemon(const std::string& root, const std::vector<std::string>& arguments = {});

    const Child& process() const { return process_; }

private:
    Child process_;
};

// Seconds from the start of a daemon until it has answered one request.
double secondsToFirstAnswer(const std::string& root);

}  // namespace bench
