// gap_watch PORT FILE SECONDS
//
// The watching client of bench/host/soak.sh: stays connected to
// 127.0.0.1:PORT (connecting again whenever the connection ends or fails)
// and measures the gaps between bytes received. On SIGUSR1 it writes
//   interval_ms=<longest gap since the last report> overall_ms=<longest gap> bytes=<received> reconnects=<n>
// to FILE (whole, by renaming) and starts a new interval; the gap still open
// at that moment counts too, so a host that has stopped sending shows as a
// growing gap. Ends after SECONDS, writing FILE once more.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "loopback_client.h"

namespace {

using bench::Clock;

volatile std::sig_atomic_t reportAsked = 0;

void askReport(int) {
    reportAsked = 1;
}

struct Gaps {
    Clock::time_point last = Clock::now();
    double intervalMs = 0, overallMs = 0;
    unsigned long long bytes = 0, reconnects = 0;

    double openMs() const { return std::chrono::duration<double, std::milli>(Clock::now() - last).count(); }
    void received(std::size_t n) {
        double const gap = openMs();
        if (gap > intervalMs) intervalMs = gap;
        if (gap > overallMs) overallMs = gap;
        last = Clock::now();
        bytes += n;
    }
};

void report(Gaps& g, std::string const& file) {
    double const open = g.openMs();
    double const interval = open > g.intervalMs ? open : g.intervalMs;
    double const overall = open > g.overallMs ? open : g.overallMs;
    std::string const tmp = file + ".tmp";
    if (FILE* f = std::fopen(tmp.c_str(), "w")) {
        std::fprintf(f, "interval_ms=%.1f overall_ms=%.1f bytes=%llu reconnects=%llu\n", interval, overall,
                     g.bytes, g.reconnects);
        std::fclose(f);
        std::rename(tmp.c_str(), file.c_str());
    }
    g.intervalMs = 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: gap_watch PORT FILE SECONDS\n");
        return 2;
    }
    unsigned short const port = static_cast<unsigned short>(std::atoi(argv[1]));
    std::string const file = argv[2];
    auto const end = Clock::now() + std::chrono::seconds(std::atoi(argv[3]));
    struct sigaction action {};
    action.sa_handler = askReport;
    sigaction(SIGUSR1, &action, nullptr);
    Gaps gaps;
    int fd = -1;
    bool established = false;
    while (Clock::now() < end) {
        if (reportAsked) {
            reportAsked = 0;
            report(gaps, file);
        }
        if (fd < 0) {
            fd = bench::startConnect(port);
            established = false;
            if (fd < 0) {
                usleep(100000);
                continue;
            }
        }
        pollfd p{fd, static_cast<short>(established ? POLLIN : POLLOUT), 0};
        if (poll(&p, 1, bench::msUntil(end, 100)) <= 0) continue;
        char buf[65536];
        ssize_t n = established ? read(fd, buf, sizeof buf) : 0;
        if (!established && bench::connected(fd)) {
            established = true;
        } else if (n > 0) {
            gaps.received(static_cast<std::size_t>(n));
        } else if (!(n < 0 && errno == EAGAIN)) {
            close(fd);
            fd = -1;
            ++gaps.reconnects;
            if (!established) usleep(100000);  // refused: try again shortly
        }
    }
    report(gaps, file);
    return 0;
}
