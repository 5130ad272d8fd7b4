// Descriptor sets for a select-style polling loop, without select's FD_SETSIZE
// ceiling: any non-negative descriptor value can be added.
#pragma once

#include <cstdint>
#include <vector>

// A set of descriptors with its count (highest added descriptor + 1, 0 when empty).
// Negative descriptors are ignored by add() and never reported as set.
class FdSet {
public:
    // Adds fd; raises count() to fd + 1 when fd is not below it. Negative fd: no effect.
    void add(int fd);
    // Whether fd is in the set (false for a negative fd).
    bool isSet(int fd) const;
    // Highest descriptor added + 1; 0 when nothing was added since construction or clear().
    int count() const { return count_; }
    // Empties the set.
    void clear();
    // Removes fd from the set (count() is not lowered).
    void remove(int fd);

private:
    std::vector<std::uint64_t> bits_;
    int count_ = 0;
};

// Waits (with poll) until a descriptor of `rd` is readable or one of `wr` is
// writable, or `timeoutMs` passes (negative: no time-out). On return each set
// holds only its ready descriptors (a hang-up or error counts as ready for
// reading, and for writing when the descriptor was asked for writing).
// Returns the number of ready descriptors counted per set, 0 on time-out, and -1
// with errno on failure (EINTR included; the sets are then unchanged).
int waitFds(FdSet& rd, FdSet& wr, int timeoutMs);
