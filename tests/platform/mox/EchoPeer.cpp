#include <sys/socket.h>

#include <array>
#include <cstdlib>

// A program that answers the hello on an inherited socket and stays until the service ends: mox_echo_peer SOCKET
int main(int, char** argv) {
    const int socket = std::atoi(argv[1]);
    std::array<unsigned char, 36> hello{};
    if (::recv(socket, hello.data(), hello.size(), MSG_WAITALL) != static_cast<ssize_t>(hello.size())) return 1;
    std::array<unsigned char, 32> echo{28, 0, 0, 0, 2};
    for (std::size_t at = 0; at < 16; ++at) echo[16 + at] = hello[20 + at];
    ::send(socket, echo.data(), echo.size(), MSG_NOSIGNAL);
    return ::recv(socket, hello.data(), 1, 0) == 0 ? 0 : 1;
}
