/* flood: a module program for the throughput benchmark. Waits for one byte on
 * its standard input, then writes BYTES (default 64 MiB) to its standard
 * output in 4 KiB writes and exits. */
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char** argv) {
    unsigned long long total = argc > 1 ? strtoull(argv[1], NULL, 10) : 64ull << 20;
    char trigger;
    if (read(0, &trigger, 1) != 1) return 1;
    char block[4096];
    for (size_t i = 0; i < sizeof block; ++i) block[i] = (char)('a' + i % 26);
    for (unsigned long long sent = 0; sent < total;) {
        size_t chunk = total - sent < sizeof block ? (size_t)(total - sent) : sizeof block;
        ssize_t n = write(1, block, chunk);
        if (n <= 0) return 1;
        sent += (unsigned long long)n;
    }
    return 0;
}
