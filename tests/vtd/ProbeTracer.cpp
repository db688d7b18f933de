#include "tests/vtd/ProbeTracer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "platform/file/UniqueFd.h"

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// Where the program's first byte lies in the process: what the addresses in its notes count from.
std::uint64_t loadAddress(pid_t pid, const std::string& program) {
    std::ifstream maps{"/proc/" + std::to_string(pid) + "/maps"};
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with(program)) return std::stoull(line, nullptr, 16);
    }
    throw std::runtime_error{"the program is not mapped"};
}

// The memory of the traced process, its code included.
class Memory {
public:
    explicit Memory(pid_t pid) : fd_{::open(("/proc/" + std::to_string(pid) + "/mem").c_str(), O_RDWR | O_CLOEXEC)} {}

    // As much of it as is there.
    std::string read(std::uint64_t address, std::size_t size) const {
        std::string bytes(size, '\0');
        const ssize_t got = ::pread(fd_.get(), bytes.data(), size, static_cast<off_t>(address));
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    void change(std::uint64_t address, std::string_view expected, std::string_view replacement) const {
        if (read(address, expected.size()) != expected) throw std::runtime_error{"not as noted"};
        const ssize_t done = ::pwrite(fd_.get(), replacement.data(), replacement.size(), static_cast<off_t>(address));
        if (done != static_cast<ssize_t>(replacement.size())) throw std::runtime_error{"cannot write"};
    }
    std::string text(std::uint64_t address) const {
        std::string text;
        for (std::size_t end = text.npos; end == text.npos;) {
            const std::string piece = read(address + text.size(), 4096);
            end = piece.empty() ? 0 : piece.find('\0');
            text += piece.substr(0, end);
        }
        return text;
    }

private:
    const file::UniqueFd fd_;
};

std::uint64_t registerNamed(const user_regs_struct& all, const std::string& name) {
    const struct {
        const char* wide;
        const char* narrow;
        unsigned long long value;
    } rows[] = {{"rax", "eax", all.rax},  {"rbx", "ebx", all.rbx},  {"rcx", "ecx", all.rcx},  {"rdx", "edx", all.rdx},
                {"rsi", "esi", all.rsi},  {"rdi", "edi", all.rdi},  {"rbp", "ebp", all.rbp},  {"rsp", "esp", all.rsp},
                {"r8", "r8d", all.r8},    {"r9", "r9d", all.r9},    {"r10", "r10d", all.r10}, {"r11", "r11d", all.r11},
                {"r12", "r12d", all.r12}, {"r13", "r13d", all.r13}, {"r14", "r14d", all.r14}, {"r15", "r15d", all.r15}};
    for (const auto& row : rows) {
        if (name == row.wide || name == row.narrow) return row.value;
    }
    throw std::runtime_error{"no register " + name};
}

// Of the size in bytes, negative for a signed number.
std::int64_t extended(std::uint64_t value, int size) {
    if (size == -4) return static_cast<std::int32_t>(value);
    if (size == 4) return static_cast<std::uint32_t>(value);
    return static_cast<std::int64_t>(value);
}

FiredArgument argumentOf(const Memory& memory, const user_regs_struct& registers, const std::string& note) {
    int size = 0;
    long long number = 0;
    char base[8] = "";
    FiredArgument argument;
    if (std::sscanf(note.c_str(), "%d@$%lld", &size, &number) == 2) {
        argument.number = number;
    } else if (std::sscanf(note.c_str(), "%d@%%%7[a-z0-9]", &size, base) == 2) {
        argument.number = extended(registerNamed(registers, base), size);
    } else if (std::sscanf(note.c_str(), "%d@%lld(%%%7[a-z0-9])", &size, &number, base) == 3 ||
               std::sscanf(note.c_str(), "%d@(%%%7[a-z0-9])", &size, base) == 2) {
        const std::uint64_t address = registerNamed(registers, base) + static_cast<std::uint64_t>(number);
        const std::string bytes = memory.read(address, static_cast<std::size_t>(std::abs(size)));
        std::uint64_t value = 0;
        std::memcpy(&value, bytes.data(), bytes.size());
        argument.number = extended(value, size);
    } else {
        throw std::runtime_error{"operand " + note};
    }
    argument.text = memory.text(static_cast<std::uint64_t>(argument.number));
    return argument;
}

// What follows the label on a line that has it.
std::optional<std::string> field(const std::string& line, const std::string& label) {
    const std::size_t start = line.find(label);
    return start == line.npos ? std::nullopt : std::optional{line.substr(start + label.size())};
}

// Follows the program with all its threads. What is traced belongs to the tracing thread alone.
class Trace {
public:
    Trace(pid_t pid, const std::string& program, const std::vector<Probe>& probes) : pid_{pid}, probes_{probes} {
        ::ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACECLONE | PTRACE_O_EXITKILL);
        base_ = loadAddress(pid_, program);
        for (const Probe& probe : probes_) {
            memory_.change(base_ + probe.semaphore, {"\0\0", 2}, {"\1\0", 2});
            memory_.change(base_ + probe.location, "\x90", "\xCC");  // a one-byte nop, and a breakpoint
        }
    }

    std::vector<Fired> until(const std::string& last) {
        ::ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
        for (int status = 0;;) {
            const pid_t thread = ::waitpid(-1, &status, __WALL);
            if (thread < 0) break;
            if (!WIFSTOPPED(status)) {
                if (thread == pid_) break;
                continue;
            }
            const int signal = WSTOPSIG(status);
            if (signal == SIGTRAP && status >> 16 == 0) noteProbe(thread);
            if (!fired_.empty() && fired_.back().name == last) break;
            const bool ours = signal == SIGTRAP || signal == SIGSTOP;  // SIGSTOP: how a new thread shows up
            ::ptrace(PTRACE_CONT, thread, nullptr, ours ? 0 : signal);
        }
        ::kill(pid_, SIGKILL);
        while (::waitpid(-1, nullptr, __WALL) > 0) {
        }
        return std::move(fired_);
    }

private:
    void noteProbe(pid_t thread) {
        user_regs_struct registers{};
        ::ptrace(PTRACE_GETREGS, thread, nullptr, &registers);
        for (const Probe& probe : probes_) {
            // The breakpoint took the place of a one-byte nop, so that the thread may just go on.
            if (base_ + probe.location + 1 != registers.rip) continue;
            Fired fired{probe.name, {}};
            for (const std::string& note : probe.arguments) {
                fired.arguments.push_back(argumentOf(memory_, registers, note));
            }
            fired_.push_back(std::move(fired));
        }
    }

    const pid_t pid_;
    const Memory memory_{pid_};
    const std::vector<Probe>& probes_;
    std::uint64_t base_ = 0;
    std::vector<Fired> fired_;
};

}  // namespace

std::vector<Probe> listProbes(const std::string& program) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe{::popen(("readelf -n " + program).c_str(), "r"), &::pclose};
    std::string output;
    for (int c; pipe && (c = std::fgetc(pipe.get())) != EOF;) output += static_cast<char>(c);

    std::vector<Probe> probes;
    std::istringstream lines{output};
    for (std::string line; std::getline(lines, line);) {
        if (const auto provider = field(line, "Provider: ")) probes.push_back({*provider, {}, 0, 0, {}});
        if (probes.empty()) continue;
        if (const auto name = field(line, "Name: ")) probes.back().name = *name;
        if (const auto addresses = field(line, "Location: ")) {
            std::sscanf(addresses->c_str(), "%" SCNx64 ", Base: %*x, Semaphore: %" SCNx64, &probes.back().location,
                        &probes.back().semaphore);
        }
        if (const auto arguments = field(line, "Arguments: ")) {
            std::istringstream each{*arguments};
            for (std::string argument; each >> argument;) probes.back().arguments.push_back(argument);
        }
    }
    return probes;
}

std::vector<Fired> traceProgram(const std::string& program, std::vector<std::string> arguments,
                                std::vector<std::string> environment, const std::vector<Probe>& probes,
                                const std::string& last, const std::function<void(pid_t)>& started) {
    arguments.insert(arguments.begin(), program);
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(environment);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        ::execve(program.c_str(), argv.data(), envp.data());
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) throw std::runtime_error{"cannot trace " + program};
    Trace trace{pid, program, probes};
    started(pid);
    return trace.until(last);
}
