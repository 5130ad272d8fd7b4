// churn_clients FIRST_PORT PORTS PER_PORT SECONDS [SEED]
//
// Client churn for bench/host/soak.sh: keeps PER_PORT TCP clients on each of
// the PORTS ports from 127.0.0.1:FIRST_PORT upward. Each client connects,
// reads and drops whatever arrives for a random 1 to 5 s, closes, and connects
// again. Every socket is non-blocking, so a host that stalls only makes
// connections wait; one still not established after 5 s counts as failed and
// starts over. Ends after SECONDS and prints
//   connections=<established> failed=<refused or timed out> bytes=<received>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "loopback_client.h"

namespace {

using bench::Clock;

struct Client {
    unsigned short port = 0;
    int fd = -1;
    bool established = false;
    Clock::time_point until;  // when to close (established) or give up (connecting)
};

struct Totals {
    unsigned long long connections = 0, failed = 0, bytes = 0;
};

std::mt19937 random_;

Clock::duration randomLife() {
    return std::chrono::milliseconds(std::uniform_int_distribution<int>(1000, 5000)(random_));
}

void restart(Client& c) {
    if (c.fd >= 0) close(c.fd);
    c.fd = bench::startConnect(c.port);
    c.established = false;
    // A connection refused at once is tried again a little later.
    c.until = Clock::now() + (c.fd >= 0 ? std::chrono::milliseconds(5000) : std::chrono::milliseconds(100));
}

void onReady(Client& c, short revents, Totals& totals) {
    if (!c.established) {
        if (!bench::connected(c.fd)) {
            ++totals.failed;
            restart(c);
            return;
        }
        c.established = true;
        c.until = Clock::now() + randomLife();
        ++totals.connections;
        return;
    }
    if (!(revents & (POLLIN | POLLHUP | POLLERR))) return;
    char buf[65536];
    ssize_t n = read(c.fd, buf, sizeof buf);
    if (n > 0)
        totals.bytes += static_cast<unsigned long long>(n);
    else if (n == 0 || errno != EAGAIN)
        restart(c);
}

void onTime(Client& c, Totals& totals) {
    if (Clock::now() < c.until) return;
    if (!c.established) ++totals.failed;
    restart(c);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 && argc != 6) {
        std::fprintf(stderr, "usage: churn_clients FIRST_PORT PORTS PER_PORT SECONDS [SEED]\n");
        return 2;
    }
    int const first = std::atoi(argv[1]), ports = std::atoi(argv[2]), perPort = std::atoi(argv[3]);
    auto const end = Clock::now() + std::chrono::seconds(std::atoi(argv[4]));
    random_.seed(argc == 6 ? static_cast<unsigned>(std::atoi(argv[5])) : std::random_device{}());
    std::vector<Client> clients(static_cast<std::size_t>(ports * perPort));
    for (std::size_t i = 0; i < clients.size(); ++i) {
        clients[i].port = static_cast<unsigned short>(first + static_cast<int>(i) / perPort);
        restart(clients[i]);
    }
    Totals totals;
    std::vector<pollfd> fds(clients.size());
    while (Clock::now() < end) {
        for (std::size_t i = 0; i < clients.size(); ++i)
            fds[i] = {clients[i].fd, static_cast<short>(clients[i].established ? POLLIN : POLLOUT), 0};
        if (poll(fds.data(), fds.size(), bench::msUntil(end, 50)) > 0) {
            for (std::size_t i = 0; i < clients.size(); ++i)
                if (fds[i].revents && fds[i].fd == clients[i].fd) onReady(clients[i], fds[i].revents, totals);
        }
        for (Client& c : clients) onTime(c, totals);
    }
    std::printf("connections=%llu failed=%llu bytes=%llu\n", totals.connections, totals.failed, totals.bytes);
    return 0;
}
