// Descriptor sets as bitmaps, and the wait on them through the calling
// thread's interest set.
#include "vlplatform/fd_set.h"

#include <algorithm>
#include <cstddef>

#include "descriptor_registry.h"
#include "interest_set.h"

namespace {

constexpr int kWordBits = 64;

std::size_t wordOf(int fd) {
    return static_cast<std::size_t>(fd) / kWordBits;
}
std::uint64_t bitOf(int fd) {
    return std::uint64_t{1} << (static_cast<unsigned>(fd) % kWordBits);
}

}  // namespace

void FdSet::grow(std::size_t word) {
    bits_.resize(word + 1, 0);
}

// A number opened or closed after the wait is not the one that was ready.
bool FdSet::existedWhenFilled(int fd) const {
    return vlp::descriptors::stampOf(fd).changedAt <= filledAt_;
}

void FdSet::clear() {
    std::fill(bits_.begin(), bits_.end(), 0);
    count_ = 0;
    filledAt_ = kNotFilled;
}

void FdSet::remove(int fd) {
    if (fd < 0) return;
    std::size_t word = wordOf(fd);
    if (word < bits_.size()) bits_[word] &= ~bitOf(fd);
}

void FdSet::merge(FdSet const& other) {
    if (other.bits_.size() > bits_.size()) bits_.resize(other.bits_.size(), 0);
    for (std::size_t i = 0; i < other.bits_.size(); ++i) bits_[i] |= other.bits_[i];
    count_ = std::max(count_, other.count_);
}

int FdSet::next(int from) const {
    if (from < 0) from = 0;
    std::size_t word = wordOf(from);
    if (word >= bits_.size()) return -1;
    // The bits below `from` in its word are left out.
    std::uint64_t pending = bits_[word] & (~std::uint64_t{0} << (static_cast<unsigned>(from) % kWordBits));
    for (;;) {
        while (pending != 0) {
            int const fd = static_cast<int>(word) * kWordBits + __builtin_ctzll(pending);
            if (filledAt_ == kNotFilled || existedWhenFilled(fd)) return fd;
            pending &= pending - 1;
        }
        if (++word >= bits_.size()) return -1;
        pending = bits_[word];
    }
}

int waitFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    vlp::InterestSet& interest = vlp::InterestSet::ofThisThread();
    if (interest.update(rd.bits_, wr.bits_) == -1) return -1;
    std::uint64_t const filledAt = vlp::descriptors::generation();
    int const ready = interest.wait(rd.bits_, wr.bits_, timeoutMs);
    if (ready == -1) return -1;
    rd.filledAt_ = filledAt;
    wr.filledAt_ = filledAt;
    return ready;
}
