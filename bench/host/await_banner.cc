// await_banner PORT TEXT LIMIT_S [PID]
//
// Waits until a module serves: connects to 127.0.0.1:PORT, again and again,
// until a connection receives TEXT (e.g. the module's "starting module" line,
// the first thing every client gets), then prints the moment it arrived,
//   at_ns=<CLOCK_REALTIME in nanoseconds>
// (comparable with `date +%s%N`), closes and exits 0. Exits 1 after LIMIT_S
// seconds, or once the process PID (the host) has ended, whichever is first.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "loopback_client.h"

namespace {

// Whether process `pid` has ended (gone, or a zombie not yet reaped).
bool ended(long pid) {
    if (pid <= 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return true;
    std::size_t const close = line.rfind(')');
    return close == std::string::npos || line.compare(close, 4, ") Z ") == 0;
}

long long realtimeNs() {
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

enum class Attempt { kFound, kRetry, kGiveUp };

// One connection: reads until TEXT arrives, the connection ends or fails
// (retry), or the limit passes or the host ends (give up).
Attempt attempt(unsigned short port, std::string const& text, bench::Clock::time_point deadline, long pid) {
    int fd = bench::startConnect(port);
    if (fd < 0) return Attempt::kRetry;
    pollfd p{fd, POLLOUT, 0};
    std::string seen;
    bool established = false;
    Attempt result = Attempt::kGiveUp;
    while (bench::Clock::now() < deadline && !ended(pid)) {
        p.revents = 0;
        if (poll(&p, 1, bench::msUntil(deadline, 100)) <= 0) continue;
        if (!established) {
            if (!bench::connected(fd)) {
                result = Attempt::kRetry;
                break;
            }
            established = true;
            p.events = POLLIN;
            continue;
        }
        char buf[4096];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) {
            result = Attempt::kRetry;
            break;
        }
        seen.append(buf, static_cast<std::size_t>(n));
        if (seen.find(text) != std::string::npos) {
            result = Attempt::kFound;
            break;
        }
        if (seen.size() > 65536) seen.erase(0, seen.size() - text.size());
    }
    close(fd);
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: await_banner PORT TEXT LIMIT_S [PID]\n");
        return 2;
    }
    unsigned short const port = static_cast<unsigned short>(std::atoi(argv[1]));
    std::string const text = argv[2];
    auto const deadline =
        bench::Clock::now() + std::chrono::milliseconds(static_cast<long long>(std::atof(argv[3]) * 1000));
    long const pid = argc == 5 ? std::atol(argv[4]) : 0;
    for (;;) {
        Attempt const a = attempt(port, text, deadline, pid);
        if (a == Attempt::kFound) {
            std::printf("at_ns=%lld\n", realtimeNs());
            return 0;
        }
        if (a == Attempt::kGiveUp || bench::Clock::now() >= deadline || ended(pid)) break;
        usleep(10000);
    }
    std::fprintf(stderr, "await_banner: no \"%s\" on port %u%s\n", text.c_str(), port,
                 ended(pid) ? ": the host has ended" : " within the limit");
    return 1;
}
