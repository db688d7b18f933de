#include "bench/Floor.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "bench/Processes.h"
#include "bench/Statistics.h"

namespace bench {

namespace {

void transfer(int socket, std::vector<char>& bytes, bool sending) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = sending ? write(socket, bytes.data() + done, bytes.size() - done)
                                      : read(socket, bytes.data() + done, bytes.size() - done);
        if (count <= 0) _exit(0);
        done += static_cast<std::size_t>(count);
    }
}

}  // namespace

double pingPongMicroseconds(std::size_t size, std::size_t rounds) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) throw std::runtime_error("socketpair");
    const file::UniqueFd mine{pair[0]};
    const Child echo{[&] {
        close(pair[0]);
        std::vector<char> bytes(size);
        for (;;) {
            transfer(pair[1], bytes, false);
            transfer(pair[1], bytes, true);
        }
    }};
    close(pair[1]);
    std::vector<char> bytes(size);
    std::vector<double> samples;
    samples.reserve(rounds);
    for (std::size_t i = 0; i < rounds; ++i) {
        const auto start = Clock::now();
        transfer(mine.get(), bytes, true);
        transfer(mine.get(), bytes, false);
        samples.push_back(microsecondsSince(start));
    }
    return median(std::move(samples));
}

file::UniqueFd listenAt(const std::string& path) {
    file::UniqueFd listener{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener.get(), 1024) != 0) {
        throw std::runtime_error("cannot listen at " + path);
    }
    return listener;
}

void serveEcho(const file::UniqueFd& listener) {
    const int epoll = epoll_create1(0);
    const auto add = [epoll](int fd) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    };
    add(listener.get());
    std::array<epoll_event, 64> events;
    std::array<char, 4096> bytes;
    for (;;) {
        const int count = epoll_wait(epoll, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == listener.get()) {
                add(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK));
                continue;
            }
            const ssize_t length = read(fd, bytes.data(), bytes.size());
            if (length <= 0 || send(fd, bytes.data(), static_cast<std::size_t>(length), MSG_NOSIGNAL) != length) {
                close(fd);
            }
        }
    }
}

void openReadClose(const std::string& path) {
    std::array<char, 16384> bytes;
    const file::UniqueFd fd{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    while (read(fd.get(), bytes.data(), bytes.size()) > 0) {
    }
}

}  // namespace bench
