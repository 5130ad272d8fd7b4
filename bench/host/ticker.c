/* ticker: a module program for bench/host/soak.sh. Prints a numbered line
 * every 20 ms (50 lines a second) until a signal ends it. The pace is kept
 * against deadlines, not sleeps; after a write that stalled (the host not
 * reading) it resumes from now instead of bursting to catch up. */
#include <errno.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

static long long nowNs(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

static void sleepUntil(long long ns) {
    struct timespec t = {(time_t)(ns / 1000000000LL), (long)(ns % 1000000000LL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, NULL) == EINTR) {
    }
}

int main(void) {
    long long const period = 20000000LL;
    long long next = nowNs();
    for (unsigned long long n = 1;; ++n) {
        char line[64];
        int length = snprintf(line, sizeof line, "tick %llu\n", n);
        if (write(1, line, (size_t)length) != length) return 1;
        next += period;
        long long const now = nowNs();
        if (next < now) next = now;
        sleepUntil(next);
    }
}
