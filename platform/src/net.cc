// Socket helpers: addresses, binding, listening, accepting and connecting.
#include "vlplatform/net.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "vlplatform/descriptors.h"
#include "vlplatform/exceptions.h"
#include "vlplatform/log_util.h"

namespace {

// The IPv4 address of the name `host`; throws IOException when there is none.
in_addr resolveHost(char const* host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host, nullptr, &hints, &found);
    if (rc != 0 || !found) {
        // The resolver's own codes are not error numbers; only a system failure has one.
        int err = rc == EAI_SYSTEM ? errno : EINVAL;
        std::string text = std::string("cannot resolve ") + host + " (" + gai_strerror(rc) + ")";
        if (found) freeaddrinfo(found);
        throw IOException(err, text);
    }
    in_addr addr = reinterpret_cast<sockaddr_in const*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return addr;
}

}  // namespace

socklen_t setInetAddr(char const* host, unsigned short port, sockaddr_in& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (!host) {
        addr.sin_addr.s_addr = htonl(INADDR_ANY);
    } else if (inet_pton(AF_INET, host, &addr.sin_addr) != 1) {
        addr.sin_addr = resolveHost(host);
    }
    return sizeof addr;
}

void bindSocket(int fd, sockaddr_in const& addr, socklen_t len) {
    if (bind(fd, reinterpret_cast<sockaddr const*>(&addr), len) == -1) {
        int err = errno;
        throw IOException(err, "cannot bind to " + makeString(addr));
    }
}

void listenConnection(int fd, int backlog) {
    if (listen(fd, backlog) == -1) throw IOException(errno, "cannot listen on socket");
    setAsideAcceptReserve();
}

int connectClient(sockaddr_in const& addr) {
    int const fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd == -1) return -1;
    if (connect(fd, reinterpret_cast<sockaddr const*>(&addr), sizeof addr) == -1 && errno != EINPROGRESS) {
        int const err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    noteDescriptorOpened(fd);
    return fd;
}

std::ostream& operator<<(std::ostream& os, sockaddr_in const& addr) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    // Composed first, so the stream's number format cannot change the port's digits.
    return os << (std::string(text) + ":" + std::to_string(ntohs(addr.sin_port)));
}
