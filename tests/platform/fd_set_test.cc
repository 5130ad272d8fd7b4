// FdSet and waitFds: membership, counts, high descriptors, readiness, signals.
#include "vlplatform/fd_set.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "vlplatform/descriptors.h"

namespace {

// A pipe closed on destruction.
struct Pipe {
    int rd = -1;
    int wr = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
            rd = fds[0];
            wr = fds[1];
        }
    }
    ~Pipe() {
        if (rd >= 0) close(rd);
        if (wr >= 0) close(wr);
    }
    void closeWriteEnd() {
        close(wr);
        wr = -1;
    }
    // Writes until the pipe is full.
    void fill() const {
        char buf[4096] = {};
        while (write(wr, buf, sizeof buf) > 0) {
        }
    }
};

// Moves `fd` to the number `target` (raising the descriptor limit when needed).
int moveTo(int fd, int target) {
    rlimit lim;
    getrlimit(RLIMIT_NOFILE, &lim);
    if (lim.rlim_cur <= static_cast<rlim_t>(target)) {
        lim.rlim_cur = target + 1;
        if (lim.rlim_max < lim.rlim_cur) lim.rlim_max = lim.rlim_cur;
        if (setrlimit(RLIMIT_NOFILE, &lim) != 0) return -1;
    }
    if (dup2(fd, target) != target) return -1;
    close(fd);
    return target;
}

void onSignal(int) {}

}  // namespace

TEST(FdSet, StartsEmpty) {
    FdSet set;
    EXPECT_EQ(set.count(), 0);
    EXPECT_FALSE(set.isSet(0));
    EXPECT_FALSE(set.isSet(5000));
}

TEST(FdSet, AddMarksAndRaisesCount) {
    FdSet set;
    set.add(5);
    EXPECT_TRUE(set.isSet(5));
    EXPECT_FALSE(set.isSet(4));
    EXPECT_FALSE(set.isSet(6));
    EXPECT_EQ(set.count(), 6);
    set.add(3);
    EXPECT_EQ(set.count(), 6);
    set.add(64);
    EXPECT_EQ(set.count(), 65);
    EXPECT_TRUE(set.isSet(3));
    EXPECT_TRUE(set.isSet(64));
    EXPECT_FALSE(set.isSet(63));
    EXPECT_FALSE(set.isSet(65));
}

TEST(FdSet, NegativeIsIgnoredAndNeverSet) {
    FdSet set;
    set.add(-1);
    set.add(-64);
    EXPECT_EQ(set.count(), 0);
    EXPECT_FALSE(set.isSet(-1));
    set.add(2);
    set.add(-1);
    EXPECT_EQ(set.count(), 3);
    EXPECT_FALSE(set.isSet(-1));
    EXPECT_FALSE(set.isSet(-64));
}

TEST(FdSet, AcceptsDescriptorsAboveSelectCeiling) {
    FdSet set;
    set.add(1500);
    set.add(70000);
    EXPECT_TRUE(set.isSet(1500));
    EXPECT_TRUE(set.isSet(70000));
    EXPECT_FALSE(set.isSet(1499));
    EXPECT_EQ(set.count(), 70001);
}

TEST(FdSet, ClearEmptiesAndResetsCount) {
    FdSet set;
    set.add(0);
    set.add(200);
    set.clear();
    EXPECT_EQ(set.count(), 0);
    EXPECT_FALSE(set.isSet(0));
    EXPECT_FALSE(set.isSet(200));
    set.add(1);
    EXPECT_EQ(set.count(), 2);
    EXPECT_FALSE(set.isSet(200));
}

TEST(FdSet, RemoveUnmarksButKeepsCount) {
    FdSet set;
    set.add(9);
    set.remove(9);
    set.remove(-3);
    set.remove(4000);
    EXPECT_FALSE(set.isSet(9));
    EXPECT_EQ(set.count(), 10);
}

TEST(FdSet, MergeAddsTheOtherSetsDescriptorsAndTakesTheLargerCount) {
    FdSet set, other;
    set.add(3);
    other.add(5);
    other.add(700);
    set.merge(other);
    EXPECT_TRUE(set.isSet(3));
    EXPECT_TRUE(set.isSet(5));
    EXPECT_TRUE(set.isSet(700));
    EXPECT_FALSE(set.isSet(4));
    EXPECT_EQ(set.count(), 701);
    FdSet small;
    small.add(1);
    set.merge(small);
    EXPECT_TRUE(set.isSet(1));
    EXPECT_EQ(set.count(), 701);
    EXPECT_FALSE(small.isSet(700)) << "the other set is left as it was";
}

TEST(FdSet, NextWalksTheDescriptorsInOrderAcrossWords) {
    FdSet set;
    for (int fd : {0, 63, 64, 130, 5000}) set.add(fd);
    std::vector<int> seen;
    for (int fd = set.next(0); fd != -1; fd = set.next(fd + 1)) seen.push_back(fd);
    EXPECT_EQ(seen, (std::vector<int>{0, 63, 64, 130, 5000}));
    EXPECT_EQ(set.next(-7), 0);
    EXPECT_EQ(set.next(65), 130);
    EXPECT_EQ(set.next(5001), -1);
    EXPECT_EQ(set.next(100000), -1);
    EXPECT_EQ(FdSet().next(0), -1);
}

TEST(FdSet, NextLeavesOutWhatIsSetNoLongerAfterAWait) {
    Pipe first, second;
    ASSERT_EQ(write(first.wr, "x", 1), 1);
    ASSERT_EQ(write(second.wr, "y", 1), 1);
    FdSet rd, wr;
    rd.add(first.rd);
    rd.add(second.rd);
    ASSERT_EQ(waitFds(rd, wr, 5000), 2);
    int const lower = std::min(first.rd, second.rd);
    int const higher = std::max(first.rd, second.rd);
    ASSERT_EQ(rd.next(0), lower);
    // The lower number now means another open file: the ready mark is not its.
    noteDescriptorOpened(lower);
    EXPECT_FALSE(rd.isSet(lower));
    EXPECT_EQ(rd.next(0), higher);
    EXPECT_EQ(rd.next(higher + 1), -1);
    // The record says the number is open; it is closed through the record.
    closeDescriptor(lower);
    (lower == first.rd ? first.rd : second.rd) = -1;
}

TEST(WaitFds, ReportsReadableAndKeepsOnlyReadyOnes) {
    Pipe idle, busy;
    ASSERT_EQ(write(busy.wr, "x", 1), 1);
    FdSet rd, wr;
    rd.add(idle.rd);
    rd.add(busy.rd);
    int countBefore = rd.count();
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    EXPECT_TRUE(rd.isSet(busy.rd));
    EXPECT_FALSE(rd.isSet(idle.rd));
    EXPECT_EQ(rd.count(), countBefore);
    EXPECT_EQ(wr.count(), 0);
}

TEST(WaitFds, ReportsWritableAndDropsFullPipe) {
    Pipe full, free;
    full.fill();
    FdSet rd, wr;
    wr.add(full.wr);
    wr.add(free.wr);
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    EXPECT_TRUE(wr.isSet(free.wr));
    EXPECT_FALSE(wr.isSet(full.wr));
}

TEST(WaitFds, CountsDescriptorReadyInBothSetsTwice) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    ASSERT_EQ(write(sv[1], "x", 1), 1);
    FdSet rd, wr;
    rd.add(sv[0]);
    wr.add(sv[0]);
    EXPECT_EQ(waitFds(rd, wr, 5000), 2);
    EXPECT_TRUE(rd.isSet(sv[0]));
    EXPECT_TRUE(wr.isSet(sv[0]));
    close(sv[0]);
    close(sv[1]);
}

TEST(WaitFds, MixedSetsKeepOnlyTheirReadyDescriptors) {
    Pipe readable, quiet, full;
    ASSERT_EQ(write(readable.wr, "x", 1), 1);
    full.fill();
    FdSet rd, wr;
    rd.add(readable.rd);
    rd.add(quiet.rd);
    wr.add(full.wr);
    wr.add(quiet.wr);
    EXPECT_EQ(waitFds(rd, wr, 5000), 2);
    EXPECT_TRUE(rd.isSet(readable.rd));
    EXPECT_FALSE(rd.isSet(quiet.rd));
    EXPECT_TRUE(wr.isSet(quiet.wr));
    EXPECT_FALSE(wr.isSet(full.wr));
}

TEST(WaitFds, HangUpCountsAsReadable) {
    Pipe p;
    p.closeWriteEnd();
    FdSet rd, wr;
    rd.add(p.rd);
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    EXPECT_TRUE(rd.isSet(p.rd));
}

TEST(WaitFds, TimeOutZeroReturnsAtOnceWithEmptySets) {
    Pipe p;
    p.fill();
    FdSet rd, wr;
    Pipe other;
    rd.add(other.rd);
    wr.add(p.wr);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waitFds(rd, wr, 0), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(rd.isSet(other.rd));
    EXPECT_FALSE(wr.isSet(p.wr));
}

TEST(WaitFds, TimeOutWaitsAboutTheGivenTime) {
    Pipe p;
    FdSet rd, wr;
    rd.add(p.rd);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waitFds(rd, wr, 100), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST(WaitFds, WorksForDescriptorAboveSelectCeiling) {
    Pipe p;
    int high = moveTo(dup(p.rd), 1500);
    ASSERT_EQ(high, 1500) << strerror(errno);
    int highWr = moveTo(dup(p.wr), 1501);
    ASSERT_EQ(highWr, 1501) << strerror(errno);
    FdSet rd, wr;
    rd.add(high);
    wr.add(highWr);
    EXPECT_EQ(waitFds(rd, wr, 0), 1);
    EXPECT_FALSE(rd.isSet(high));
    EXPECT_TRUE(wr.isSet(highWr));
    ASSERT_EQ(write(p.wr, "x", 1), 1);
    rd.add(high);
    EXPECT_EQ(waitFds(rd, wr, 5000), 2);
    EXPECT_TRUE(rd.isSet(high));
    EXPECT_TRUE(wr.isSet(highWr));
    close(high);
    close(highWr);
}

TEST(WaitFds, SignalInterruptsWithEintrAndLeavesSetsUnchanged) {
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART
    struct sigaction old;
    ASSERT_EQ(sigaction(SIGALRM, &sa, &old), 0);
    Pipe p;
    FdSet rd, wr;
    rd.add(p.rd);
    wr.add(-1);
    itimerval timer = {};
    timer.it_value.tv_usec = 50 * 1000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
    errno = 0;
    int ret = waitFds(rd, wr, 30000);
    int err = errno;
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(err, EINTR);
    EXPECT_TRUE(rd.isSet(p.rd));
    EXPECT_EQ(rd.count(), p.rd + 1);
}

TEST(WaitFds, ClosedDescriptorFailsWithEbadf) {
    Pipe p;
    int closed = dup(p.rd);
    close(closed);
    FdSet rd, wr;
    rd.add(closed);
    rd.add(p.rd);
    errno = 0;
    EXPECT_EQ(waitFds(rd, wr, 1000), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(rd.isSet(closed));
    EXPECT_TRUE(rd.isSet(p.rd));
}

TEST(WaitFds, EmptySetsJustWait) {
    FdSet rd, wr;
    EXPECT_EQ(waitFds(rd, wr, 10), 0);
}

TEST(WaitFds, NegativeTimeOutWaitsUntilReady) {
    Pipe p;
    FdSet rd, wr;
    rd.add(p.rd);
    auto start = std::chrono::steady_clock::now();
    // The writer is late on purpose: the wait must outlast any short time-out.
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        (void)!write(p.wr, "y", 1);
    });
    EXPECT_EQ(waitFds(rd, wr, -1), 1);
    writer.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
    EXPECT_TRUE(rd.isSet(p.rd));
}
