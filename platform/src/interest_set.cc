#include "interest_set.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>

#include "descriptor_registry.h"

namespace vlp {

namespace {

constexpr int kWordBits = 64;
constexpr unsigned kReadable = EPOLLIN | EPOLLHUP | EPOLLERR;
constexpr unsigned kWritable = EPOLLOUT | EPOLLHUP | EPOLLERR;

// A forked child shares its parent's epoll instance until it execs; it must
// never change the parent's registrations, so it starts an instance of its own.
std::atomic<unsigned long> forks{0};
void countForkInChild() {
    forks.fetch_add(1);
}
struct ForkWatch {
    ForkWatch() { pthread_atfork(nullptr, nullptr, countForkInChild); }
} const forkWatch;

std::size_t wordOf(int fd) {
    return static_cast<std::size_t>(fd) / kWordBits;
}
std::uint64_t bitOf(int fd) {
    return std::uint64_t{1} << (static_cast<unsigned>(fd) % kWordBits);
}
std::uint64_t wordAt(InterestSet::Bits const& bits, std::size_t i) {
    return i < bits.size() ? bits[i] : 0;
}
bool has(InterestSet::Bits const& bits, int fd) {
    return (wordAt(bits, wordOf(fd)) & bitOf(fd)) != 0;
}

std::uint64_t pack(std::uint32_t token, int fd) {
    return std::uint64_t{token} << 32 | static_cast<std::uint32_t>(fd);
}

// What is left of a time-out that started at construction; negative: none.
class Deadline {
public:
    explicit Deadline(int timeoutMs)
        : limited_(timeoutMs >= 0), end_(Clock::now() + std::chrono::milliseconds(timeoutMs)) {}
    int leftMs() const {
        if (!limited_) return -1;
        auto left = std::chrono::ceil<std::chrono::milliseconds>(end_ - Clock::now()).count();
        return left > 0 ? static_cast<int>(left) : 0;
    }

private:
    using Clock = std::chrono::steady_clock;
    bool limited_;
    Clock::time_point end_;
};

// A new epoll instance, moved above the low numbers where it can: the lowest
// free numbers are the ones that code closing a number twice would hit.
int newInstance() {
    constexpr int kAbove = 512;
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0 || fd >= kAbove) return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, kAbove);
    if (moved == -1) return fd;
    ::close(fd);
    return moved;
}

}  // namespace

InterestSet& InterestSet::ofThisThread() {
    thread_local InterestSet set;
    return set;
}

InterestSet::~InterestSet() {
    if (epfd_ >= 0) ::close(epfd_);
}

int InterestSet::update(Bits const& rd, Bits const& wr) {
    if (!haveInstance()) return -1;
    refreshChangedNumbers();
    return applyDiff(rd, wr, true) ? 0 : -1;
}

// An instance made in this process; a new one (with nothing registered) after
// a fork, or after the last one was lost.
bool InterestSet::haveInstance() {
    unsigned long const forksNow = forks.load();
    if (epfd_ >= 0 && forksNow == forksSeen_) return true;
    // A forked child closes only its own copy of the parent's instance.
    if (epfd_ >= 0) ::close(epfd_);
    forgetEverything();
    forksSeen_ = forksNow;
    epfd_ = newInstance();
    return epfd_ >= 0;
}

void InterestSet::forgetEverything() {
    epfd_ = -1;
    std::fill(askedRd_.begin(), askedRd_.end(), 0);
    std::fill(askedWr_.begin(), askedWr_.end(), 0);
    for (Entry& entry : entries_) entry = Entry{};
    polled_.clear();
    kernelCount_ = 0;
}

// A new instance holding what the last one should have held, without the
// stale registrations that the old one kept for numbers closed meanwhile.
void InterestSet::rebuild() {
    Bits const rd = askedRd_;
    Bits const wr = askedWr_;
    if (epfd_ >= 0) ::close(epfd_);
    forgetEverything();
    epfd_ = newInstance();
    if (epfd_ >= 0) applyDiff(rd, wr, false);
}

// Numbers that meant another open file when they entered are taken out; the
// diff that follows brings them back in if they are still asked for.
void InterestSet::refreshChangedNumbers() {
    std::uint64_t const now = descriptors::generation();
    if (now == seenGeneration_) return;
    changed_.clear();
    bool const complete = descriptors::changedBetween(seenGeneration_, now, changed_);
    seenGeneration_ = now;
    auto refresh = [this](int fd) {
        if (static_cast<std::size_t>(fd) >= entries_.size()) return;
        Entry const& entry = entries_[fd];
        if (entry.mode != Mode::none && entry.stamp != descriptors::stampOf(fd).changedAt) release(fd);
    };
    if (complete) {
        for (int fd : changed_) refresh(fd);
        return;
    }
    for (std::size_t fd = 0; fd < entries_.size(); ++fd) refresh(static_cast<int>(fd));
}

// Visits only the descriptors whose interest differs between the asked sets
// and what is registered. Strict: the first failure ends it; otherwise a
// descriptor that fails is left out and the rest go on.
bool InterestSet::applyDiff(Bits const& rd, Bits const& wr, bool strict) {
    std::size_t const words = std::max(std::max(rd.size(), wr.size()), askedRd_.size());
    if (askedRd_.size() < words) askedRd_.resize(words, 0);
    if (askedWr_.size() < words) askedWr_.resize(words, 0);
    for (std::size_t i = 0; i < words; ++i) {
        std::uint64_t const r = wordAt(rd, i);
        std::uint64_t const w = wordAt(wr, i);
        for (std::uint64_t diff = (r ^ askedRd_[i]) | (w ^ askedWr_[i]); diff != 0; diff &= diff - 1) {
            int const bit = __builtin_ctzll(diff);
            std::uint64_t const mask = std::uint64_t{1} << bit;
            unsigned const events = ((r & mask) ? EPOLLIN : 0u) | ((w & mask) ? EPOLLOUT : 0u);
            if (!change(static_cast<int>(i) * kWordBits + bit, events) && strict) return false;
        }
    }
    return true;
}

bool InterestSet::change(int fd, unsigned events) {
    Entry& entry = entryOf(fd);
    if (events == 0) {
        release(fd);
        return true;
    }
    if (entry.mode == Mode::none) return enter(fd, events);
    if (entry.mode == Mode::kernel) {
        // Write interest is dropped lazily: a descriptor asked for writing on
        // one turn and not the next (a client's queue that just drained) keeps
        // it until the kernel reports it writable on a wait that finds nothing
        // else (see dropUnwanted()), which saves two system calls a turn on a
        // busy connection.
        bool const covered = (entry.registered & ~unsigned{EPOLLOUT}) == (events & ~unsigned{EPOLLOUT}) &&
                             (events & ~entry.registered) == 0;
        if (covered) {
            setAsked(fd, events);
            return true;
        }
        return modify(fd, events);
    }
    setAsked(fd, events);  // a polled descriptor's events are read from the asked sets
    return true;
}

bool InterestSet::enter(int fd, unsigned events) {
    Entry& entry = entryOf(fd);
    if (fd == epfd_) {
        // The caller's number was closed; this set's own instance took it over since.
        errno = EBADF;
        return false;
    }
    descriptors::Stamp const stamp = descriptors::stampOf(fd);
    entry.stamp = stamp.changedAt;
    if (stamp.open && epfd_ >= 0) {
        entry.token = ++nextToken_;
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = pack(entry.token, fd);
        int rc = epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev);
        // Still registered from before under this number: the same open file.
        if (rc == -1 && errno == EEXIST) rc = epoll_ctl(epfd_, EPOLL_CTL_MOD, fd, &ev);
        if (rc == -1 && (errno == EBADF || errno == EINVAL) && instanceLost()) return enter(fd, events);
        if (rc == 0) {
            entry.mode = Mode::kernel;
            entry.registered = events;
            ++kernelCount_;
            setAsked(fd, events);
            return true;
        }
        if (errno == EBADF) return false;
        // Files epoll cannot watch (EPERM) and a full kernel set are polled instead.
    }
    addPolled(fd);
    setAsked(fd, events);
    return true;
}

bool InterestSet::modify(int fd, unsigned events) {
    Entry& entry = entryOf(fd);
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = pack(entry.token, fd);
    if (epoll_ctl(epfd_, EPOLL_CTL_MOD, fd, &ev) == 0) {
        entry.registered = events;
        setAsked(fd, events);
        return true;
    }
    int const err = errno;
    release(fd);
    if (err == ENOENT || ((err == EBADF || err == EINVAL) && instanceLost())) return enter(fd, events);
    errno = err;
    return false;
}

// The instance's own number may have been closed by code that closes a number
// twice; an empty wait on it tells. When it is gone, a new one is made and
// everything asked for is registered again.
bool InterestSet::instanceLost() {
    int const err = errno;
    epoll_event probe;
    if (epoll_wait(epfd_, &probe, 1, 0) != -1 || (errno != EBADF && errno != EINVAL)) {
        errno = err;
        return false;
    }
    rebuild();
    errno = err;
    return epfd_ >= 0;
}

void InterestSet::release(int fd) {
    if (static_cast<std::size_t>(fd) >= entries_.size()) return;
    Entry& entry = entries_[fd];
    if (entry.mode == Mode::kernel) {
        // Fails when the number is closed already; the kernel then dropped it itself.
        epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr);
        --kernelCount_;
    } else if (entry.mode == Mode::polled) {
        removePolled(fd);
    }
    entry.mode = Mode::none;
    setAsked(fd, 0);
}

void InterestSet::drop(int fd) {
    if (fd >= 0 && epfd_ >= 0 && forks.load() == forksSeen_) release(fd);
}

void InterestSet::setAsked(int fd, unsigned events) {
    std::size_t const word = wordOf(fd);
    if (word >= askedRd_.size()) {
        askedRd_.resize(word + 1, 0);
        askedWr_.resize(word + 1, 0);
    }
    std::uint64_t const bit = bitOf(fd);
    askedRd_[word] = (events & EPOLLIN) ? (askedRd_[word] | bit) : (askedRd_[word] & ~bit);
    askedWr_[word] = (events & EPOLLOUT) ? (askedWr_[word] | bit) : (askedWr_[word] & ~bit);
}

InterestSet::Entry& InterestSet::entryOf(int fd) {
    if (static_cast<std::size_t>(fd) >= entries_.size()) entries_.resize(static_cast<std::size_t>(fd) + 1);
    return entries_[fd];
}

void InterestSet::addPolled(int fd) {
    Entry& entry = entryOf(fd);
    entry.mode = Mode::polled;
    entry.pollSlot = static_cast<std::uint32_t>(polled_.size());
    polled_.push_back(fd);
}

void InterestSet::removePolled(int fd) {
    std::uint32_t const slot = entries_[fd].pollSlot;
    int const last = polled_.back();
    polled_[slot] = last;
    entries_[last].pollSlot = slot;
    polled_.pop_back();
}

int InterestSet::wait(Bits& rd, Bits& wr, int timeoutMs) {
    Deadline const deadline(timeoutMs);
    for (;;) {
        bool stale = false;
        ready_.clear();
        unwanted_.clear();
        int const rc =
            polled_.empty() ? waitKernel(deadline.leftMs(), stale) : waitPolled(deadline.leftMs(), stale);
        if (rc == -1) return -1;
        if (stale) rebuild();
        bool const wanted = hasWantedEvent();
        // Only writability nobody asked for: that interest goes, and the wait goes on.
        if (!wanted && !unwanted_.empty() && dropUnwanted()) stale = true;
        // Only stale events: nothing happened that was asked for; wait on.
        if (!stale || wanted || deadline.leftMs() == 0) return report(rd, wr);
    }
}

int InterestSet::waitKernel(int timeoutMs, bool& stale) {
    if (epfd_ < 0) {
        errno = EBADF;
        return -1;
    }
    // Room for every registration, and for a few stale ones beside them.
    if (events_.size() < kernelCount_ + 8) events_.resize(kernelCount_ + 8);
    int const n = epoll_wait(epfd_, events_.data(), static_cast<int>(events_.size()), timeoutMs);
    if (n == -1) {
        if (errno == EINTR || !instanceLost()) return -1;
        stale = true;  // the caller waits again, on the new instance
        return 0;
    }
    takeKernelEvents(n, stale);
    return 0;
}

// Descriptors without a kernel registration are polled, with the instance's
// own descriptor beside them: it is readable while a registration is ready.
int InterestSet::waitPolled(int timeoutMs, bool& stale) {
    pollfds_.clear();
    for (int fd : polled_) {
        short const events =
            static_cast<short>((has(askedRd_, fd) ? POLLIN : 0) | (has(askedWr_, fd) ? POLLOUT : 0));
        pollfds_.push_back(pollfd{fd, events, 0});
    }
    if (epfd_ >= 0 && kernelCount_ > 0) pollfds_.push_back(pollfd{epfd_, POLLIN, 0});
    if (poll(pollfds_.data(), pollfds_.size(), timeoutMs) == -1) return -1;
    for (std::size_t i = 0; i < polled_.size(); ++i) {
        pollfd const& p = pollfds_[i];
        if (p.revents & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        if (p.revents != 0) ready_.push_back(Ready{p.fd, static_cast<unsigned>(p.revents)});
    }
    if (pollfds_.size() == polled_.size() || pollfds_.back().revents == 0) return 0;
    return waitKernel(0, stale);
}

// Events whose token is not the one their number holds now come from a
// registration that outlived its number: left out, and reported as stale.
void InterestSet::takeKernelEvents(int count, bool& stale) {
    for (int i = 0; i < count; ++i) {
        epoll_event const& ev = events_[i];
        int const fd = static_cast<int>(ev.data.u64 & 0xffffffffu);
        auto const token = static_cast<std::uint32_t>(ev.data.u64 >> 32);
        bool const current = static_cast<std::size_t>(fd) < entries_.size() &&
                             entries_[fd].mode == Mode::kernel && entries_[fd].token == token;
        if (!current) {
            stale = true;
            continue;
        }
        ready_.push_back(Ready{fd, ev.events});
        if ((ev.events & ~unsigned{EPOLLOUT}) == 0 && (askedEvents(fd) & EPOLLOUT) == 0)
            unwanted_.push_back(fd);
    }
}

unsigned InterestSet::askedEvents(int fd) const {
    return (has(askedRd_, fd) ? unsigned{EPOLLIN} : 0u) | (has(askedWr_, fd) ? unsigned{EPOLLOUT} : 0u);
}

// Takes the write interest off the descriptors reported writable although
// nobody asked; false when none could be changed.
bool InterestSet::dropUnwanted() {
    bool changed = false;
    for (int fd : unwanted_) {
        if (static_cast<std::size_t>(fd) < entries_.size() && entries_[fd].mode == Mode::kernel)
            changed = modify(fd, askedEvents(fd)) || changed;
    }
    return changed;
}

// Whether a ready descriptor was asked for what it is ready for.
bool InterestSet::hasWantedEvent() const {
    for (Ready const& r : ready_) {
        if (((r.events & kReadable) && has(askedRd_, r.fd)) ||
            ((r.events & kWritable) && has(askedWr_, r.fd)))
            return true;
    }
    return false;
}

// poll's POLLIN, POLLOUT, POLLHUP and POLLERR have epoll's values.
int InterestSet::report(Bits& rd, Bits& wr) const {
    std::fill(rd.begin(), rd.end(), 0);
    std::fill(wr.begin(), wr.end(), 0);
    int n = 0;
    for (Ready const& r : ready_) {
        std::size_t const word = wordOf(r.fd);
        if ((r.events & kReadable) && has(askedRd_, r.fd) && word < rd.size()) {
            rd[word] |= bitOf(r.fd);
            ++n;
        }
        if ((r.events & kWritable) && has(askedWr_, r.fd) && word < wr.size()) {
            wr[word] |= bitOf(r.fd);
            ++n;
        }
    }
    return n;
}

}  // namespace vlp
