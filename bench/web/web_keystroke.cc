// web_keystroke TCP_PORT CONSOLE_PORT MODULE COUNT
//
// The keystroke round trip of a browser terminal beside a plain TCP client's,
// in one run: a module running cat on a raw terminal echoes what it reads.
// First a TCP client of 127.0.0.1:TCP_PORT, then a WebSocket on the console's
// /module/MODULE/terminal at 127.0.0.1:CONSOLE_PORT (what the terminal page
// opens): each discards the first 300 ms of output, then COUNT times sends
// one byte (the WebSocket in a masked binary frame, as a browser sends it) and
// waits until it comes back. Prints one line:
//   tcp_median_us=<m> tcp_p99_us=<p> web_median_us=<m> web_p99_us=<p> ratio_median=<web/tcp>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connectTo(unsigned short port) {
    int const fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

// Reads what arrives within `ms` milliseconds into `into`; false when the connection ended.
bool readFor(int fd, int ms, std::string& into) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, ms) <= 0) return true;
    char buffer[65536];
    ssize_t const n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    into.append(buffer, static_cast<std::size_t>(n));
    return true;
}

void discardFor(int fd, int ms) {
    std::string ignored;
    auto const until = Clock::now() + std::chrono::milliseconds(ms);
    while (Clock::now() < until) {
        if (!readFor(fd, 10, ignored)) std::exit(1);
        ignored.clear();
    }
}

void sendAll(int fd, std::string const& bytes) {
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        std::perror("write");
        std::exit(1);
    }
}

// A masked binary frame with one byte, as a browser sends what is typed.
std::string frameOf(char byte) {
    unsigned char const mask[4] = {0x12, 0x34, 0x56, 0x78};
    std::string frame = {static_cast<char>(0x82), static_cast<char>(0x81)};
    frame.append(reinterpret_cast<char const*>(mask), 4);
    frame += static_cast<char>(byte ^ mask[0]);
    return frame;
}

// The payload bytes of the complete server frames at the front of `raw`
// (unmasked, lengths below 64 KiB), which are taken out of it.
std::string payloads(std::string& raw) {
    std::string out;
    for (;;) {
        if (raw.size() < 2) return out;
        std::size_t length = static_cast<unsigned char>(raw[1]) & 0x7f, header = 2;
        if (length == 126) {
            if (raw.size() < 4) return out;
            length = (static_cast<unsigned char>(raw[2]) << 8) | static_cast<unsigned char>(raw[3]);
            header = 4;
        }
        if (raw.size() < header + length) return out;
        out.append(raw, header, length);
        raw.erase(0, header + length);
    }
}

struct Figures {
    double median, p99;
};

// Sends each byte with `send` and waits until `echoed` finds it come back.
template <class Send, class Receive>
Figures roundTrips(int count, Send send, Receive receive) {
    std::vector<double> times;
    for (int i = 0; i < count; ++i) {
        char const byte = static_cast<char>('a' + i % 26);
        auto const start = Clock::now();
        send(byte);
        std::string seen;
        while (seen.find(byte) == std::string::npos) receive(seen);
        times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times[times.size() * 99 / 100]};
}

Figures tcp(unsigned short port, int count) {
    int const fd = connectTo(port);
    discardFor(fd, 300);
    Figures const f = roundTrips(
        count, [&](char byte) { sendAll(fd, std::string(1, byte)); },
        [&](std::string& seen) {
            if (!readFor(fd, 5000, seen)) std::exit(1);
        });
    close(fd);
    return f;
}

Figures web(unsigned short port, std::string const& module, int count) {
    int const fd = connectTo(port);
    sendAll(
        fd,
        "GET /module/" + module + "/terminal HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
            "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Protocol: nxa-terminal\r\n\r\n");
    std::string raw;
    while (raw.find("\r\n\r\n") == std::string::npos) {
        if (!readFor(fd, 5000, raw)) std::exit(1);
    }
    if (raw.compare(0, 12, "HTTP/1.1 101") != 0) {
        std::fprintf(stderr, "no WebSocket: %s\n", raw.c_str());
        std::exit(1);
    }
    discardFor(fd, 300);
    raw.clear();
    Figures const f = roundTrips(
        count, [&](char byte) { sendAll(fd, frameOf(byte)); },
        [&](std::string& seen) {
            if (!readFor(fd, 5000, raw)) std::exit(1);
            seen += payloads(raw);
        });
    close(fd);
    return f;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: web_keystroke TCP_PORT CONSOLE_PORT MODULE COUNT\n");
        return 2;
    }
    int const count = std::atoi(argv[4]);
    Figures const t = tcp(static_cast<unsigned short>(std::atoi(argv[1])), count);
    Figures const w = web(static_cast<unsigned short>(std::atoi(argv[2])), argv[3], count);
    std::printf("tcp_median_us=%.1f tcp_p99_us=%.1f web_median_us=%.1f web_p99_us=%.1f ratio_median=%.2f\n",
                t.median, t.p99, w.median, w.p99, w.median / t.median);
    return 0;
}
