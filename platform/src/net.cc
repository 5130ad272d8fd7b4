// Socket helpers: addresses, binding, listening and accepting.
#include "vlplatform/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <unistd.h>

#include <atomic>
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

namespace {

// One descriptor held back for the moment the others run out, so that a
// connection can still be taken off the queue and closed.
std::atomic<int> reserve{-1};
std::atomic<unsigned long> refused{0};

// Takes one connection off the queue of the listening fd and closes it, with
// the reserve descriptor freed for the moment. errno is kept.
void refuseOne(int fd) {
    int const err = errno;
    int held = reserve.exchange(-1);
    if (held != -1) {
        close(held);
        int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection != -1) {
            close(connection);
            refused.fetch_add(1);
        }
        setAsideAcceptReserve();
    }
    errno = err;
}

void makeNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags != -1 && !(flags & O_NONBLOCK)) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

}  // namespace

void listenConnection(int fd, int backlog) {
    if (listen(fd, backlog) == -1) throw IOException(errno, "cannot listen on socket");
    setAsideAcceptReserve();
}

int acceptClient(int fd, sockaddr* addr, socklen_t* len) {
    makeNonBlocking(fd);
    setAsideAcceptReserve();
    int connection = accept4(fd, addr, len, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection != -1) {
        noteDescriptorOpened(connection);
        return connection;
    }
    if (errno == EMFILE || errno == ENFILE) refuseOne(fd);
    return -1;
}

void setAsideAcceptReserve() {
    if (reserve.load() != -1) return;
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int expected = -1;
    if (fd != -1 && !reserve.compare_exchange_strong(expected, fd)) close(fd);
}

unsigned long refusedConnections() {
    return refused.load();
}

std::ostream& operator<<(std::ostream& os, sockaddr_in const& addr) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    // Composed first, so the stream's number format cannot change the port's digits.
    return os << (std::string(text) + ":" + std::to_string(ntohs(addr.sin_port)));
}
