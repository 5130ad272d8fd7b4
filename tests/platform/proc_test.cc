// Proc: forking, reaping, and stopping children and their process groups.
#include "vlplatform/proc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <thread>
#include <vector>

#include "interpose.h"
#include "shell.h"

namespace {

// When set, fork() fails with this error number instead of forking.
int failForkWith = 0;

}  // namespace

// Interposes the C library's fork for this test binary, so Proc::fork's failure
// path can be driven.
extern "C" pid_t fork() {
    if (failForkWith != 0) {
        errno = failForkWith;
        return -1;
    }
    static auto real = nxatest::nextDefinition<pid_t (*)()>("fork");
    return real();
}

namespace {

using Clock = std::chrono::steady_clock;

// A pipe through which a child reports to the test.
struct Pipe {
    int rd = -1;
    int wr = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            rd = fds[0];
            wr = fds[1];
        }
    }
    ~Pipe() {
        closeRead();
        closeWrite();
    }
    void closeRead() {
        if (rd >= 0) close(rd);
        rd = -1;
    }
    void closeWrite() {
        if (wr >= 0) close(wr);
        wr = -1;
    }
    void send(int value) const { (void)!write(wr, &value, sizeof value); }
    // The next value a child sent; -1 when the pipe closed first.
    int receive() const {
        int value = -1;
        return read(rd, &value, sizeof value) == sizeof value ? value : -1;
    }
};

// Runs `body` in a child forked through `proc`; the child never returns into the test.
pid_t spawn(Proc& proc, std::function<void()> const& body) {
    pid_t pid = proc.fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

// A child body: a new session (as a module's program has), then wait for signals.
void sessionLeaderThatWaits(Pipe const& ready, bool ignoreTerm) {
    setsid();
    if (ignoreTerm) signal(SIGTERM, SIG_IGN);
    ready.send(getpid());
    for (;;) pause();
}

// True when `pid` is no child of this process any more (reaped).
bool isReaped(pid_t pid) {
    int status;
    return waitpid(pid, &status, WNOHANG) == -1 && errno == ECHILD;
}

// True when the child `pid` is still running (not ended, not reaped).
bool isRunning(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// Reaps a process of this test (a grandchild adopted by the subreaper) and gives
// its wait status; -1 when it does not end within the time.
int awaitStatus(pid_t pid) {
    int status = -1;
    bool ended =
        nxatest::waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(20));
    return ended ? status : -1;
}

long long msSince(Clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

TEST(Proc, KeepsItsOwnId) {
    Proc proc(getpid());
    EXPECT_EQ(proc.self(), getpid());
    EXPECT_TRUE(proc.children().empty());
}

TEST(Proc, ForkRecordsChildUntilReaped) {
    Proc proc(getpid());
    pid_t pid = spawn(proc, [] {});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(proc.children(), std::set<int>{pid});
    std::set<int> ended;
    proc.waitChildren(true, &ended);
    EXPECT_EQ(ended, std::set<int>{pid});
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, ForkFailureReturnsMinusOneWithErrnoAndRecordsNothing) {
    Proc proc(getpid());
    failForkWith = EAGAIN;
    errno = 0;
    pid_t pid = proc.fork();
    int err = errno;
    failForkWith = 0;
    EXPECT_EQ(pid, -1);
    EXPECT_EQ(err, EAGAIN);
    EXPECT_TRUE(proc.children().empty());
}

TEST(Proc, ChildsCopyForgetsTheParentsChildren) {
    Proc proc(getpid());
    Pipe first, report;
    pid_t sibling = spawn(proc, [&] { sessionLeaderThatWaits(first, false); });
    ASSERT_EQ(first.receive(), sibling);
    pid_t pid = spawn(proc, [&] {
        int seen = static_cast<int>(proc.children().size());
        proc.stop(sibling);  // must not touch the parent's child
        report.send(seen);
    });
    ASSERT_GT(pid, 0);
    EXPECT_EQ(report.receive(), 0);
    std::set<int> ended;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        proc.waitChildren(false, &ended);
        return ended.count(pid) == 1;
    }));
    EXPECT_TRUE(isRunning(sibling));
    proc.stop(sibling);
}

TEST(Proc, WaitChildrenWithoutWaitDoesNotBlockOnRunningChild) {
    Proc proc(getpid());
    Pipe hold;
    pid_t pid = spawn(proc, [&] {
        hold.closeWrite();
        char c;
        (void)!read(hold.rd, &c, 1);  // returns once the test closes its end
    });
    ASSERT_GT(pid, 0);
    hold.closeRead();
    std::set<int> ended;
    auto start = Clock::now();
    proc.waitChildren(false, &ended);
    // Not blocking: one that waited for the child would not return before the
    // test lets it end; the bound leaves room for a loaded machine.
    EXPECT_LT(msSince(start), 5000);
    EXPECT_TRUE(ended.empty());
    EXPECT_EQ(proc.children(), std::set<int>{pid});

    hold.closeWrite();
    EXPECT_TRUE(nxatest::waitUntil([&] {
        proc.waitChildren(false, &ended);
        return !ended.empty();
    }));
    EXPECT_EQ(ended, std::set<int>{pid});
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, WaitChildrenWithNullSetStillReaps) {
    Proc proc(getpid());
    pid_t pid = spawn(proc, [] {});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(nxatest::waitUntil([&] {
        proc.waitChildren(false, nullptr);
        return proc.children().empty();
    }));
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, WaitChildrenWithWaitCollectsEveryChild) {
    Proc proc(getpid());
    Pipe gate;
    auto waitForGate = [&] {
        gate.closeWrite();
        char c;
        (void)!read(gate.rd, &c, 1);
    };
    pid_t a = spawn(proc, waitForGate);
    pid_t b = spawn(proc, waitForGate);
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    // The children end only once the gate closes, after the wait has begun.
    std::thread opener([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        gate.closeWrite();
    });
    std::set<int> ended;
    proc.waitChildren(true, &ended);
    opener.join();
    EXPECT_EQ(ended, (std::set<int>{a, b}));
    EXPECT_TRUE(proc.children().empty());
}

TEST(Proc, StopEndsChildWithSigtermBeforeGraceTime) {
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionLeaderThatWaits(ready, false); });
    ASSERT_EQ(ready.receive(), pid);
    auto start = Clock::now();
    proc.stop(pid);
    EXPECT_LT(msSince(start), Proc::stopGraceMs);
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, StopKillsChildIgnoringSigtermAfterGraceTime) {
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionLeaderThatWaits(ready, true); });
    ASSERT_EQ(ready.receive(), pid);
    auto start = Clock::now();
    proc.stop(pid);
    long long elapsed = msSince(start);
    EXPECT_GE(elapsed, Proc::stopGraceMs);
    EXPECT_LT(elapsed, Proc::stopGraceMs + 10000);
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, StopReapsChildThatHasAlreadyExited) {
    Proc proc(getpid());
    pid_t pid = spawn(proc, [] { _exit(5); });
    ASSERT_GT(pid, 0);
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    auto start = Clock::now();
    proc.stop(pid);
    EXPECT_LT(msSince(start), Proc::stopGraceMs);
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, StopOfUnknownPidDoesNothing) {
    Proc proc(getpid());
    Proc other(getpid());
    Pipe ready;
    pid_t pid = spawn(other, [&] { sessionLeaderThatWaits(ready, false); });
    ASSERT_EQ(ready.receive(), pid);
    proc.stop(pid);
    proc.stop(0);
    proc.stop(-1);
    proc.stop(-pid);
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(other.children(), std::set<int>{pid});
    other.stop(pid);
    EXPECT_TRUE(isReaped(pid));
}

namespace {

// The body of a child that leads a session and forks a grandchild into its
// group, which reports its id on `ready` and waits. With ignoreTerm both ignore
// SIGTERM; with childExits the child itself ends at once.
void sessionWithGrandchild(Pipe& ready, bool ignoreTerm, bool childExits) {
    setsid();
    if (ignoreTerm) signal(SIGTERM, SIG_IGN);  // inherited by the grandchild
    if (::fork() == 0) {
        ready.send(getpid());
        for (;;) pause();
    }
    if (childExits) _exit(0);
    for (;;) pause();
}

// Waits for the grandchild (reparented to this subreaper) and expects it
// ended by `sig`.
void expectEndedBySignal(pid_t grandchild, int sig) {
    int status = awaitStatus(grandchild);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    EXPECT_EQ(WTERMSIG(status), sig);
}

}  // namespace

TEST(Proc, StopEndsGrandchildInChildsProcessGroup) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionWithGrandchild(ready, false, false); });
    ASSERT_GT(pid, 0);
    pid_t grandchild = ready.receive();
    ASSERT_GT(grandchild, 0);
    proc.stop(pid);
    EXPECT_TRUE(isReaped(pid));
    expectEndedBySignal(grandchild, SIGTERM);
}

TEST(Proc, StopKillsGrandchildIgnoringSigtermAfterGraceTime) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionWithGrandchild(ready, true, false); });
    ASSERT_GT(pid, 0);
    pid_t grandchild = ready.receive();
    ASSERT_GT(grandchild, 0);
    auto start = Clock::now();
    proc.stop(pid);
    EXPECT_GE(msSince(start), Proc::stopGraceMs);
    expectEndedBySignal(grandchild, SIGKILL);
}

TEST(Proc, StopOfEndedChildStillSignalsWhatIsLeftOfItsGroup) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionWithGrandchild(ready, false, true); });
    ASSERT_GT(pid, 0);
    pid_t grandchild = ready.receive();
    ASSERT_GT(grandchild, 0);
    siginfo_t info = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
    proc.stop(pid);
    EXPECT_TRUE(isReaped(pid));
    expectEndedBySignal(grandchild, SIGTERM);
}

TEST(Proc, StopEndsChildThatHasNoGroupOfItsOwn) {
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] {
        ready.send(getpid());
        for (;;) pause();
    });
    ASSERT_EQ(ready.receive(), pid);
    auto start = Clock::now();
    proc.stop(pid);
    EXPECT_LT(msSince(start), Proc::stopGraceMs);
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, StopAllEndsChildrenIgnoringSigtermInOneGraceTime) {
    Proc proc(getpid());
    std::vector<pid_t> pids;
    for (int i = 0; i < 4; ++i) {
        Pipe ready;
        pid_t pid = spawn(proc, [&] { sessionLeaderThatWaits(ready, true); });
        ASSERT_EQ(ready.receive(), pid);
        pids.push_back(pid);
    }
    auto start = Clock::now();
    proc.stopAll();
    long long elapsed = msSince(start);
    EXPECT_GE(elapsed, Proc::stopGraceMs);
    // Four stops one after another would take four grace times at least.
    EXPECT_LT(elapsed, 4 * Proc::stopGraceMs) << "each child had a grace time of its own";
    EXPECT_TRUE(proc.children().empty());
    for (pid_t pid : pids) EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, StopAllEndsChildrenThatObeySigtermAtOnce) {
    Proc proc(getpid());
    std::vector<pid_t> pids;
    for (int i = 0; i < 3; ++i) {
        Pipe ready;
        pid_t pid = spawn(proc, [&] { sessionLeaderThatWaits(ready, false); });
        ASSERT_EQ(ready.receive(), pid);
        pids.push_back(pid);
    }
    proc.stopAll();
    EXPECT_TRUE(proc.children().empty());
    for (pid_t pid : pids) EXPECT_TRUE(isReaped(pid));
    proc.stop(pids[0]);  // no longer recorded: nothing happens
}

TEST(Proc, SignalReturnsAtOnceAndCollectReapsOnceTheChildHasEnded) {
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionLeaderThatWaits(ready, true); });
    ASSERT_EQ(ready.receive(), pid);
    auto start = Clock::now();
    proc.signal(pid, SIGTERM);
    EXPECT_FALSE(proc.collect(pid)) << "a child that ignores SIGTERM still runs";
    EXPECT_LT(msSince(start), Proc::stopGraceMs / 2) << "signal and collect must not wait";
    EXPECT_EQ(proc.children(), std::set<int>{pid});
    proc.signal(pid, SIGKILL);
    ASSERT_TRUE(nxatest::waitUntil([&] { return proc.collect(pid); }, std::chrono::seconds(20)));
    EXPECT_TRUE(proc.children().empty());
    EXPECT_TRUE(isReaped(pid));
}

TEST(Proc, SignalReachesTheChildsProcessGroup) {
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    Proc proc(getpid());
    Pipe ready;
    pid_t pid = spawn(proc, [&] { sessionWithGrandchild(ready, false, false); });
    ASSERT_GT(pid, 0);
    pid_t grandchild = ready.receive();
    ASSERT_GT(grandchild, 0);
    proc.signal(pid, SIGTERM);
    expectEndedBySignal(grandchild, SIGTERM);
    ASSERT_TRUE(nxatest::waitUntil([&] { return proc.collect(pid); }, std::chrono::seconds(20)));
}

TEST(Proc, SignalAndCollectLeaveIdsThatAreNotRecordedChildrenAlone) {
    Proc proc(getpid());
    Proc other(getpid());
    Pipe ready;
    pid_t pid = spawn(other, [&] { sessionLeaderThatWaits(ready, false); });
    ASSERT_EQ(ready.receive(), pid);
    proc.signal(pid, SIGKILL);
    proc.signal(0, SIGKILL);
    proc.signal(-1, SIGKILL);
    EXPECT_TRUE(proc.collect(pid)) << "not a child of this object: nothing to wait for";
    EXPECT_TRUE(isRunning(pid));
    EXPECT_EQ(other.children(), std::set<int>{pid});
    other.stop(pid);
}
