// keystroke_rtt PORT COUNT
//
// Connects to 127.0.0.1:PORT where a program echoes what it reads (cat on a
// raw terminal), discards the first 300 ms of output, then COUNT times sends
// one byte and waits for it to come back. Prints one line:
//   count=<n> median_us=<m> p99_us=<p> max_us=<x>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: keystroke_rtt PORT COUNT\n");
        return 2;
    }
    unsigned short const port = static_cast<unsigned short>(std::atoi(argv[1]));
    int const count = std::atoi(argv[2]);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int attempt = 0;
    while (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        if (++attempt == 200) {
            std::perror("connect");
            return 1;
        }
        usleep(10000);
    }
    char buf[4096];
    pollfd p{fd, POLLIN, 0};
    auto const settle = std::chrono::steady_clock::now() + std::chrono::milliseconds(300);
    while (std::chrono::steady_clock::now() < settle) {
        if (poll(&p, 1, 20) > 0) (void)!read(fd, buf, sizeof buf);
    }
    std::vector<double> micros;
    micros.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        char const key = static_cast<char>('a' + i % 26);
        auto const start = std::chrono::steady_clock::now();
        if (write(fd, &key, 1) != 1) return 1;
        char echo = 0;
        if (read(fd, &echo, 1) != 1 || echo != key) {
            std::fprintf(stderr, "keystroke_rtt: lost the echo at %d\n", i);
            return 1;
        }
        micros.push_back(
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
    }
    std::sort(micros.begin(), micros.end());
    std::printf("count=%d median_us=%.1f p99_us=%.1f max_us=%.1f\n", count, micros[micros.size() / 2],
                micros[micros.size() * 99 / 100], micros.back());
    return 0;
}
