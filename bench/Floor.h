#pragma once

#include <cstddef>
#include <string>

#include "platform/file/UniqueFd.h"

// What the kernel alone costs: the floor below every figure that crosses a socket.
namespace bench {

// The median round trip, in microseconds, of `size` bytes each way between two processes over a plain blocking Unix
// socket, both kept on the caller's cores.
double pingPongMicroseconds(std::size_t size, std::size_t rounds);

// A listening Unix socket at the path, and the plain epoll echo that serves it on one thread until the process is
// killed. Listening first, serving in a child, lets nobody come too early.
file::UniqueFd listenAt(const std::string& path);
[[noreturn]] void serveEcho(const file::UniqueFd& listener);

// One open, read to the end and close of a file.
void openReadClose(const std::string& path);

}  // namespace bench
