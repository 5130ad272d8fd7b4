// The kernel interest set behind waitFds: one epoll instance per thread, kept
// from one wait to the next, so that a wait costs what is ready, not what is
// registered. Each wait applies only the change between the sets asked for
// last time and now.
//
// epoll knows a registration by open file and number, so three things are
// watched for:
//   - a number whose meaning changed (closed and opened again, even within one
//     turn): the descriptor record (descriptor_registry.h) says which numbers
//     changed since the last wait; those are registered afresh;
//   - a registration that outlives the number (the file is still open in a
//     child process after the number was closed): every registration carries
//     a token, an event whose token does not match what the number holds now
//     is stale; it is never reported, and the instance is rebuilt so that it
//     cannot wake the loop again;
//   - descriptors the record never saw: they are polled on every wait, as
//     poll(2) would (a closed one then fails the wait with EBADF), as are files
//     epoll cannot watch (regular files, which are always ready).
#pragma once

#include <poll.h>
#include <sys/epoll.h>

#include <cstdint>
#include <vector>

namespace vlp {

class InterestSet {
public:
    using Bits = std::vector<std::uint64_t>;  // descriptor n is bit n % 64 of word n / 64

    // The calling thread's interest set.
    static InterestSet& ofThisThread();

    InterestSet() = default;
    ~InterestSet();
    InterestSet(InterestSet const&) = delete;
    InterestSet& operator=(InterestSet const&) = delete;

    // Makes the set hold exactly the descriptors of `rd` (for reading) and `wr`
    // (for writing). Returns 0, or -1 with errno: EBADF when a descriptor
    // recorded as open is not (it is left out and tried again next time), or
    // the kernel's error when it cannot make an epoll instance.
    int update(Bits const& rd, Bits const& wr);

    // Waits at most timeoutMs (negative: no limit) until a descriptor of the
    // last update is ready. Then rewrites `rd` and `wr` to hold only the ready
    // ones (a hang-up or an error counts as ready in each set that asked for
    // the descriptor) and returns how many there are, per set; 0 on time-out.
    // -1 with errno leaves both unchanged: EINTR, or EBADF when a polled
    // descriptor is not open.
    int wait(Bits& rd, Bits& wr, int timeoutMs);

    // Takes `fd` out of the set before its number is closed.
    void drop(int fd);

private:
    enum class Mode : std::uint8_t { none, kernel, polled };
    struct Entry {
        Mode mode = Mode::none;
        std::uint32_t token = 0;       // carried by the kernel's events, see above
        std::uint32_t pollSlot = 0;    // index in polled_ while polled
        std::uint32_t registered = 0;  // the events the kernel watches (see change())
        std::uint64_t stamp = 0;       // the record's stamp of the number when it entered
    };
    struct Ready {
        int fd;
        unsigned events;
    };

    bool haveInstance();
    void forgetEverything();
    void rebuild();
    void refreshChangedNumbers();
    bool applyDiff(Bits const& rd, Bits const& wr, bool strict);
    bool change(int fd, unsigned events);
    bool enter(int fd, unsigned events);
    bool modify(int fd, unsigned events);
    bool instanceLost();
    void release(int fd);
    void setAsked(int fd, unsigned events);
    Entry& entryOf(int fd);
    void addPolled(int fd);
    void removePolled(int fd);
    int waitKernel(int timeoutMs, bool& stale);
    int waitPolled(int timeoutMs, bool& stale);
    void takeKernelEvents(int count, bool& stale);
    unsigned askedEvents(int fd) const;
    bool hasWantedEvent() const;
    bool dropUnwanted();
    int report(Bits& rd, Bits& wr) const;

    int epfd_ = -1;
    unsigned long forksSeen_ = 0;
    std::uint64_t seenGeneration_ = 0;
    Bits askedRd_;
    Bits askedWr_;
    std::vector<Entry> entries_;
    std::vector<int> polled_;
    std::size_t kernelCount_ = 0;
    std::uint32_t nextToken_ = 0;
    // Scratch, kept between waits so that a wait allocates nothing once grown.
    std::vector<epoll_event> events_;
    std::vector<pollfd> pollfds_;
    std::vector<Ready> ready_;
    std::vector<int> unwanted_;
    std::vector<int> changed_;
};

}  // namespace vlp
