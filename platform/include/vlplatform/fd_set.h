// Descriptor sets for a select-style polling loop, without select's FD_SETSIZE
// ceiling: any non-negative descriptor value can be added.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class FdSet;

// Waits until a descriptor of `rd` is readable or one of `wr` is writable, or
// `timeoutMs` passes (negative: no time-out). On return each set holds only
// its ready descriptors (a hang-up or error counts as ready for reading, and
// for writing when the descriptor was asked for writing); count() of both sets
// is left as it was. Returns the number of ready descriptors counted per set (a
// descriptor ready in both counts twice), 0 on time-out, and -1 with errno on
// failure, the sets then unchanged: EINTR when a signal arrived, EBADF when a
// set holds a descriptor that is not open (as select does). `rd` and `wr` must
// be two different objects.
//
// Its cost follows the ready descriptors, not the registered ones: the calling
// thread keeps a kernel interest set from one call to the next and applies
// only what changed in the sets since its last call. Descriptors are known by
// number from call to call; see vlplatform/descriptors.h for how a number
// that comes to mean another open file is told apart. A descriptor never
// recorded there is polled on every call, and a closed one then gives EBADF;
// one recorded as open that was closed without being recorded gives EBADF
// when it enters the interest set, and is never reported ready afterwards.
//
// No stale readiness: until it is cleared, a set filled by this call answers
// isSet() with false for every descriptor recorded as opened or closed after
// the wait, so a number closed and handed out again within one turn of a loop
// is never taken for the one that was ready. Allocates nothing once its
// per-thread buffers have grown to the sets' size.
int waitFds(FdSet& rd, FdSet& wr, int timeoutMs);

// A set of descriptors with its count (highest added descriptor + 1, 0 when empty).
// Negative descriptors are ignored by add() and never reported as set. Storage
// is a bitmap that grows to the highest descriptor added and is kept by clear().
class FdSet {
public:
    // Adds fd; raises count() to fd + 1 when fd is not below it. Negative fd: no effect.
    void add(int fd) {
        if (fd < 0) return;
        std::size_t const word = static_cast<std::size_t>(fd) / 64;
        if (word >= bits_.size()) grow(word);
        bits_[word] |= std::uint64_t{1} << (fd % 64);
        if (fd >= count_) count_ = fd + 1;
    }
    // Whether fd is in the set (false for a negative fd, and, in a set filled
    // by waitFds, for a descriptor opened or closed since; see there).
    bool isSet(int fd) const {
        if (fd < 0) return false;
        std::size_t const word = static_cast<std::size_t>(fd) / 64;
        if (word >= bits_.size() || (bits_[word] & (std::uint64_t{1} << (fd % 64))) == 0) return false;
        return filledAt_ == kNotFilled || existedWhenFilled(fd);
    }
    // Highest descriptor added + 1; 0 when nothing was added since construction or clear().
    int count() const { return count_; }
    // Empties the set.
    void clear();
    // Removes fd from the set (count() is not lowered).
    void remove(int fd);
    // Adds every descriptor of `other` (count() becomes the larger of the two).
    // Meant for sets not filled by waitFds: what `other` holds is taken as stored.
    void merge(FdSet const& other);
    // The lowest descriptor at or above `from` for which isSet() is true, or
    // -1 when there is none. Walking a set with it costs its size in words
    // plus the descriptors found, so the ready ones of a large set are found
    // without asking for each registered one.
    int next(int from) const;

private:
    friend int waitFds(FdSet& rd, FdSet& wr, int timeoutMs);
    // Inline above: the library asks every module's descriptors on every turn.
    void grow(std::size_t word);
    bool existedWhenFilled(int fd) const;
    static constexpr std::uint64_t kNotFilled = ~std::uint64_t{0};

    std::vector<std::uint64_t> bits_;
    int count_ = 0;
    // The descriptor record's generation when waitFds filled the set.
    std::uint64_t filledAt_ = kNotFilled;
};
