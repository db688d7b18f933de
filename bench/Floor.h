#pragma once

#include <cstddef>
#include <string>

// What the kernel alone costs: the floor below every figure that crosses a socket.
namespace bench {

// The median round trip, in microseconds, of `size` bytes each way between two processes over a plain blocking Unix
// socket, both kept on the caller's cores.
double pingPongMicroseconds(std::size_t size, std::size_t rounds);

// Serves a plain epoll echo at the path of a Unix socket, one thread, until the process is killed.
[[noreturn]] void serveEcho(const std::string& path);

// One open, read to the end and close of a file.
void openReadClose(const std::string& path);

}  // namespace bench
