// The process-wide record of descriptor numbers that changed meaning: every
// opening and closing announced through vlplatform/descriptors.h bumps a
// generation and stamps the number with it. waitFds stamps the sets it fills
// with the generation of the wait, so a number stamped later is known not to
// be the one that was ready; its interest set reads the log of changed
// numbers to re-register exactly those.
#pragma once

#include <cstdint>
#include <vector>

namespace vlp {
namespace descriptors {

// What the record says of one number.
struct Stamp {
    std::uint64_t changedAt;  // generation of the last opening or closing; 0 when never recorded
    bool open;                // opened through the record and not closed since
};

// The generation of the latest change (0 before any).
std::uint64_t generation();

// The number's stamp; {0, false} for a number never recorded (or beyond the record's range).
Stamp stampOf(int fd);

// Stamps `fd` as opened or closed with a new generation and logs it. Negative: nothing.
void record(int fd, bool open);

// Appends to `out` the numbers changed after generation `since` up to and
// including `upTo`. Returns false when the log no longer reaches back that
// far (the caller must then compare stamps itself); `out` is then incomplete.
bool changedBetween(std::uint64_t since, std::uint64_t upTo, std::vector<int>& out);

}  // namespace descriptors
}  // namespace vlp
