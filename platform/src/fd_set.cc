// Descriptor sets as bitmaps, and the poll-based wait on them.
#include "vlplatform/fd_set.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <poll.h>

namespace {

constexpr int kWordBits = 64;

std::size_t wordOf(int fd) { return static_cast<std::size_t>(fd) / kWordBits; }
std::uint64_t bitOf(int fd) { return std::uint64_t{1} << (static_cast<unsigned>(fd) % kWordBits); }

}  // namespace

void FdSet::add(int fd) {
    if (fd < 0) return;
    std::size_t word = wordOf(fd);
    if (word >= bits_.size()) bits_.resize(word + 1, 0);
    bits_[word] |= bitOf(fd);
    if (fd >= count_) count_ = fd + 1;
}

bool FdSet::isSet(int fd) const {
    if (fd < 0) return false;
    std::size_t word = wordOf(fd);
    return word < bits_.size() && (bits_[word] & bitOf(fd)) != 0;
}

void FdSet::clear() {
    std::fill(bits_.begin(), bits_.end(), 0);
    count_ = 0;
}

void FdSet::remove(int fd) {
    if (fd < 0) return;
    std::size_t word = wordOf(fd);
    if (word < bits_.size()) bits_[word] &= ~bitOf(fd);
}

namespace {

std::uint64_t wordAt(std::vector<std::uint64_t> const& bits, std::size_t i) {
    return i < bits.size() ? bits[i] : 0;
}

// Fills `fds` with one entry per descriptor of either set, in ascending order.
void collectPollFds(std::vector<std::uint64_t> const& rd, std::vector<std::uint64_t> const& wr,
                    std::vector<pollfd>& fds) {
    fds.clear();
    std::size_t words = std::max(rd.size(), wr.size());
    for (std::size_t i = 0; i < words; ++i) {
        std::uint64_t r = wordAt(rd, i);
        std::uint64_t w = wordAt(wr, i);
        for (std::uint64_t all = r | w; all != 0; all &= all - 1) {
            int bit = __builtin_ctzll(all);
            std::uint64_t mask = std::uint64_t{1} << bit;
            short events = static_cast<short>(((r & mask) ? POLLIN : 0) | ((w & mask) ? POLLOUT : 0));
            fds.push_back(pollfd{static_cast<int>(i * kWordBits) + bit, events, 0});
        }
    }
}

bool anyInvalid(std::vector<pollfd> const& fds) {
    for (pollfd const& p : fds) {
        if (p.revents & POLLNVAL) return true;
    }
    return false;
}

// Turns a set into the set of its ready members; returns how many there are.
int keepReady(std::vector<std::uint64_t>& bits, std::vector<pollfd> const& fds, short asked,
              short ready) {
    std::fill(bits.begin(), bits.end(), 0);
    int n = 0;
    for (pollfd const& p : fds) {
        if ((p.events & asked) && (p.revents & ready)) {
            bits[wordOf(p.fd)] |= bitOf(p.fd);
            ++n;
        }
    }
    return n;
}

}  // namespace

int waitFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    // One buffer per thread, reused: the host calls this on every turn of its loop.
    thread_local std::vector<pollfd> fds;
    collectPollFds(rd.bits_, wr.bits_, fds);
    // First a look without waiting. When something is ready already, as on
    // nearly every turn of a busy loop, the kernel then never prepares to
    // sleep on each descriptor; only an idle loop pays for the second call.
    int ret = poll(fds.data(), fds.size(), 0);
    if (ret == 0 && timeoutMs != 0) ret = poll(fds.data(), fds.size(), timeoutMs < 0 ? -1 : timeoutMs);
    if (ret < 0) return -1;
    if (ret > 0 && anyInvalid(fds)) {
        errno = EBADF;
        return -1;
    }
    int n = keepReady(rd.bits_, fds, POLLIN, POLLIN | POLLHUP | POLLERR);
    return n + keepReady(wr.bits_, fds, POLLOUT, POLLOUT | POLLHUP | POLLERR);
}
