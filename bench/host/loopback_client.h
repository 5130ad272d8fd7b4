// Non-blocking TCP clients of 127.0.0.1, for the host benchmark programs that
// must never hang on a host that stalls.
#pragma once

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace bench {

using Clock = std::chrono::steady_clock;

// Starts connecting to 127.0.0.1:port without waiting: a non-blocking socket
// whose connection is established or in progress, or -1.
inline int startConnect(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 || errno == EINPROGRESS) return fd;
    close(fd);
    return -1;
}

// Whether a connection started by startConnect has been established; to be
// asked once poll reports the socket writable.
inline bool connected(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

// Milliseconds from now until `deadline`, at least 0 and at most `cap`.
inline int msUntil(Clock::time_point deadline, int cap) {
    auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left <= 0 ? 0 : left > cap ? cap : static_cast<int>(left);
}

}  // namespace bench
