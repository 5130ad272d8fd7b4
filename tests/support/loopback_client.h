// A TCP client of a port on 127.0.0.1 for the library's tests: it connects
// at construction, sends whole strings and collects what has arrived without
// waiting, so a test drives the polling turns itself between the two.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace nxatest {

class LoopbackClient {
public:
    explicit LoopbackClient(unsigned short port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << std::strerror(errno);
    }
    ~LoopbackClient() { ::close(fd_); }
    LoopbackClient(LoopbackClient const&) = delete;
    LoopbackClient& operator=(LoopbackClient const&) = delete;

    // Sends all of `bytes` in one call.
    void send(std::string const& bytes) {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    // Everything received so far (without waiting).
    std::string const& received() {
        char buf[4096];
        ssize_t n;
        while ((n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT)) > 0)
            received_.append(buf, static_cast<std::size_t>(n));
        return received_;
    }

private:
    int fd_ = -1;
    std::string received_;
};

}  // namespace nxatest
