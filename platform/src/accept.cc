// Accepting connections, also when descriptors run out. A few descriptors are
// held in reserve; when accept fails for lack of descriptors, a listener that
// holds only a few connections gets one of them (so one module flooded with
// clients does not lock every other module's clients out), and any other's
// connection is taken off the queue with one and closed, so that its
// listening socket stops being ready.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include "accepted_connections.h"
#include "vlplatform/descriptors.h"
#include "vlplatform/net.h"

namespace {

std::mutex reserveLock;
std::vector<int> reserve;
std::atomic<unsigned long> refused{0};
std::atomic<unsigned> connectionTimeout{0};

// Opens reserve descriptors until there are acceptReserveSize of them, or none can be opened.
void topUpReserve() {
    std::lock_guard<std::mutex> guard(reserveLock);
    while (reserve.size() < acceptReserveSize) {
        int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (fd == -1) return;
        reserve.push_back(fd);
    }
}

// Frees one reserve descriptor for the caller's next descriptor, keeping
// `keep` of them; false when there are no more.
bool releaseOneReserve(std::size_t keep) {
    std::lock_guard<std::mutex> guard(reserveLock);
    if (reserve.size() <= keep) return false;
    close(reserve.back());
    reserve.pop_back();
    return true;
}

// One connection accepted into a freed reserve descriptor; -1 when none.
int acceptWithReserve(int listener, sockaddr* addr, socklen_t* len, std::size_t keep) {
    if (!releaseOneReserve(keep)) return -1;
    return accept4(listener, addr, len, SOCK_CLOEXEC | SOCK_NONBLOCK);
}

// Takes one connection off the listener's queue and closes it.
void refuseOne(int listener) {
    int connection = acceptWithReserve(listener, nullptr, nullptr, 0);
    if (connection == -1) return;
    close(connection);
    refused.fetch_add(1);
}

void makeNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags != -1 && !(flags & O_NONBLOCK)) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

void setOption(int fd, int level, int name, int value) {
    setsockopt(fd, level, name, &value, sizeof value);
}

// Keep-alive probes from half the time-out on, three of them, a sixth of it
// apart: a silent peer is given up after about the time-out, as is unacknowledged output.
void applyTimeout(int fd) {
    unsigned const seconds = connectionTimeout.load();
    if (seconds == 0) return;
    int const idle = static_cast<int>(std::max(1u, seconds / 2));
    int const interval = static_cast<int>(std::max(1u, seconds / 6));
    setOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, idle);
    setOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, interval);
    setOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
    setOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(seconds * 1000));
}

int admitted(int connection, int listener) {
    applyTimeout(connection);
    noteDescriptorOpened(connection);
    vlp::accepted::noteAccepted(connection, listener);
    return connection;
}

}  // namespace

int acceptClient(int fd, sockaddr* addr, socklen_t* len) {
    makeNonBlocking(fd);
    topUpReserve();
    int connection = accept4(fd, addr, len, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection != -1) return admitted(connection, fd);
    int const err = errno;
    if (err != EMFILE && err != ENFILE) return -1;
    // The last reserve descriptor is only ever used to refuse: without it, a
    // connection could stay queued and its listener ready on every wait.
    if (vlp::accepted::countFor(fd) < acceptModestListener) {
        connection = acceptWithReserve(fd, addr, len, 1);
        if (connection != -1) return admitted(connection, fd);
    }
    refuseOne(fd);
    topUpReserve();
    errno = err;
    return -1;
}

void setAcceptedConnectionTimeout(unsigned seconds) {
    connectionTimeout.store(seconds);
}

unsigned long refusedConnections() {
    return refused.load();
}

void setAsideAcceptReserve() {
    topUpReserve();
}
