#include "bench/Processes.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/Client.h"
#include "bench/Statistics.h"
#include "platform/paths/Paths.h"

namespace bench {

namespace {

void useCores(const std::function<void(cpu_set_t&)>& choose) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    choose(cores);
    sched_setaffinity(0, sizeof cores, &cores);
}

pid_t startChild(const std::function<void()>& work) {
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork");
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        work();
        _exit(0);
    }
    return pid;
}

Child startDaemon(const std::string& root, const std::vector<std::string>& arguments) {
    setenv("HALVERN_ROOT", root.c_str(), 1);
    paths::setDirectories(paths::readDirectories());
    std::vector<std::string> all{"-S", kServiceName};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Child child{VTD_PROGRAM, all, root + "/vtd.log"};
    if (!waitForDaemon()) throw std::runtime_error("the daemon did not answer");
    return child;
}

}  // namespace

void pinToCore(int core) {
    useCores([core](cpu_set_t& cores) { CPU_SET(core, &cores); });
}

void unpin() {
    useCores([](cpu_set_t& cores) {
        for (int core = 0; core < static_cast<int>(sysconf(_SC_NPROCESSORS_CONF)); ++core) CPU_SET(core, &cores);
    });
}

Child::Child(const std::function<void()>& work) : pid_{startChild(work)} {}

Child::Child(const std::string& program, const std::vector<std::string>& arguments, const std::string& errors)
    : Child{[&] {
          const int log = open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
          if (log < 0 || dup2(log, STDERR_FILENO) < 0) _exit(127);
          std::vector<std::string> texts{program};
          texts.insert(texts.end(), arguments.begin(), arguments.end());
          std::vector<char*> pointers;
          pointers.reserve(texts.size() + 1);
          for (std::string& text : texts) pointers.push_back(text.data());
          pointers.push_back(nullptr);
          execv(program.c_str(), pointers.data());
          _exit(127);
      }} {}

Child::Child(Child&& other) noexcept : pid_{std::exchange(other.pid_, -1)} {}

Child::~Child() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::size_t Child::residentBytes() const {
    std::ifstream status{"/proc/" + std::to_string(pid_) + "/status"};
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
    }
    return 0;
}

std::string Child::processorTime() const {
    std::ifstream status{"/proc/" + std::to_string(pid_) + "/stat"};
    std::string text;
    std::getline(status, text);
    std::istringstream fields{text.substr(text.rfind(')') + 1)};
    std::string user, system;
    constexpr int kBeforeTimes = 11;  // fields between the program's name and its times
    for (int i = 0; i < kBeforeTimes; ++i) fields >> user;
    fields >> user >> system;
    return user + "+" + system;
}

Daemon::Daemon(const std::string& root, const std::vector<std::string>& arguments)
    : process_{startDaemon(root, arguments)} {
    constexpr auto kQuiet = std::chrono::seconds{1};
    std::string before;
    for (std::string now; (now = process_.processorTime()) != before; before = now) std::this_thread::sleep_for(kQuiet);
}

double secondsToFirstAnswer(const std::string& root) {
    const auto start = Clock::now();
    const Child daemon = startDaemon(root, {});
    return microsecondsSince(start) / 1e6;
}

}  // namespace bench
