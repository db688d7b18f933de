#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

// A program that answers the hello on an inherited socket and stays until its input ends: mox_echo_peer SOCKET
int main(int argc, char** argv) {
    const int socket = argc > 1 ? std::atoi(argv[1]) : -1;
    std::array<unsigned char, 36> hello{};
    if (::recv(socket, hello.data(), hello.size(), MSG_WAITALL) != static_cast<ssize_t>(hello.size())) return 1;
    std::array<unsigned char, 32> echo{28, 0, 0, 0, 2};
    for (std::size_t at = 0; at < 16; ++at) echo[16 + at] = hello[20 + at];
    ::send(socket, echo.data(), echo.size(), MSG_NOSIGNAL);
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}
