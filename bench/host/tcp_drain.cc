// tcp_drain PORT CLIENTS BYTES shared|each [LIMIT_S]
//
// Connects CLIENTS TCP clients to 127.0.0.1:PORT, discards what arrives in the
// first 300 ms (a module's earlier output), then sends the one-byte trigger —
// on the first client only ("shared": one program serves all clients) or on
// every client ("each": one program per client) — and drains every client
// until it has BYTES or nothing came for 3 s, or LIMIT_S seconds (when given)
// have passed since the trigger. Prints one line:
//   clients=<n> bytes=<total> seconds=<s> MBps=<total/s/1e6> complete=<k>
// where complete counts the clients that got all BYTES.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
        usleep(10000);
    }
    std::perror("connect");
    std::exit(1);
}

// Reads and drops whatever arrives on the clients for `ms` milliseconds.
void discardFor(std::vector<pollfd>& fds, int ms) {
    auto const end = Clock::now() + std::chrono::milliseconds(ms);
    char buf[65536];
    while (Clock::now() < end) {
        if (poll(fds.data(), fds.size(), 20) <= 0) continue;
        for (pollfd& p : fds) {
            if (p.revents & POLLIN) (void)!read(p.fd, buf, sizeof buf);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 && argc != 6) {
        std::fprintf(stderr, "usage: tcp_drain PORT CLIENTS BYTES shared|each [LIMIT_S]\n");
        return 2;
    }
    unsigned short const port = static_cast<unsigned short>(std::atoi(argv[1]));
    int const clients = std::atoi(argv[2]);
    unsigned long long const want = std::strtoull(argv[3], nullptr, 10);
    bool const each = std::strcmp(argv[4], "each") == 0;
    int const limitMs = argc == 6 ? std::atoi(argv[5]) * 1000 : 0;

    std::vector<pollfd> fds;
    for (int i = 0; i < clients; ++i) fds.push_back({connectTo(port), POLLIN, 0});
    discardFor(fds, 300);

    std::vector<unsigned long long> got(clients, 0);
    for (int i = 0; i < (each ? clients : 1); ++i) (void)!write(fds[i].fd, "g", 1);
    auto const start = Clock::now();
    auto last = start;
    char buf[65536];
    int open = clients;
    while (open > 0) {
        int timeout = 3000;
        if (limitMs > 0) {
            auto const left =
                limitMs - std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
            if (left <= 0) break;
            if (left < timeout) timeout = static_cast<int>(left);
        }
        int ready = poll(fds.data(), fds.size(), timeout);
        if (ready <= 0) break;
        for (int i = 0; i < clients; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                got[i] += static_cast<unsigned long long>(n);
                last = Clock::now();
            }
            if (n <= 0 || got[i] >= want) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    double const seconds = std::chrono::duration<double>(last - start).count();
    unsigned long long total = 0;
    int complete = 0;
    for (unsigned long long g : got) {
        total += g;
        complete += g >= want;
    }
    std::printf("clients=%d bytes=%llu seconds=%.3f MBps=%.1f complete=%d\n", clients, total, seconds,
                seconds > 0 ? total / seconds / 1e6 : 0.0, complete);
    return 0;
}
