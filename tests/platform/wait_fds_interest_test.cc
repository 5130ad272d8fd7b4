// waitFds across calls: the kernel interest set it keeps, and the hazards of a
// descriptor number that comes to mean another open file.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "vlplatform/descriptors.h"
#include "vlplatform/fd_set.h"
#include "vlplatform/net.h"

namespace {

// A connected pair of local stream sockets; end `a` is recorded as opened, as
// the platform's own functions record theirs.
struct RecordedPair {
    int a = -1;
    int b = -1;
    RecordedPair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return;
        a = ends[0];
        b = ends[1];
        noteDescriptorOpened(a);
    }
    ~RecordedPair() {
        if (a >= 0) closeDescriptor(a);
        if (b >= 0) close(b);
    }
};

// A TCP listener on 127.0.0.1 at a port the system chose.
struct Listener {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    unsigned short port = 0;
    Listener() {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listenConnection(fd, 16);
        socklen_t len = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
        port = ntohs(addr.sin_port);
    }
    ~Listener() { close(fd); }
    int connectClient() const {
        int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = htons(port);
        if (connect(c, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            close(c);
            return -1;
        }
        return c;
    }
    // The next connection, once the kernel has queued it.
    int acceptNext() const {
        FdSet rd, wr;
        rd.add(fd);
        if (waitFds(rd, wr, 5000) != 1) return -1;
        return acceptClient(fd, nullptr, nullptr);
    }
};

// Waits once on `rd` alone; returns waitFds' result.
int waitRead(FdSet& rd, int timeoutMs) {
    FdSet wr;
    return waitFds(rd, wr, timeoutMs);
}

FdSet setOf(int fd) {
    FdSet set;
    set.add(fd);
    return set;
}

// A child holding copies of every descriptor of the test until it is told to end.
class CopyHolder {
public:
    CopyHolder() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ends[1]);
            char byte;
            while (read(ends[0], &byte, 1) != 0) {
            }
            _exit(0);
        }
        close(ends[0]);
        release_ = ends[1];
    }
    ~CopyHolder() {
        close(release_);
        if (pid_ > 0) waitpid(pid_, nullptr, 0);
    }

private:
    pid_t pid_ = -1;
    int release_ = -1;
};

long elapsedMs(std::chrono::steady_clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since)
            .count());
}

}  // namespace

TEST(WaitFdsInterest, NumberClosedAndAcceptedAgainAfterTheWaitIsNotReady) {
    Listener listener;
    int first = listener.connectClient();
    int a = listener.acceptNext();
    ASSERT_GE(a, 0);
    ASSERT_EQ(write(first, "x", 1), 1);
    FdSet rd = setOf(a);
    ASSERT_EQ(waitRead(rd, 5000), 1);
    ASSERT_TRUE(rd.isSet(a));

    // Within the same turn: a's client is done, and a silent client comes.
    int second = listener.connectClient();
    closeDescriptor(a);
    int b = listener.acceptNext();
    ASSERT_EQ(b, a) << "the lowest free number is handed out again";

    EXPECT_FALSE(rd.isSet(b)) << "the mark belongs to the closed connection";
    char byte;
    errno = 0;
    EXPECT_EQ(read(b, &byte, 1), -1) << "a read that cannot wait";
    EXPECT_EQ(errno, EAGAIN);
    closeDescriptor(b);
    close(first);
    close(second);
}

TEST(WaitFdsInterest, NumberHandedOutAgainIsWatchedForItsNewConnection) {
    Listener listener;
    int first = listener.connectClient();
    int a = listener.acceptNext();
    ASSERT_GE(a, 0);
    FdSet rd = setOf(a);
    ASSERT_EQ(waitRead(rd, 0), 0);
    int second = listener.connectClient();
    closeDescriptor(a);
    int b = listener.acceptNext();
    ASSERT_EQ(b, a);

    rd = setOf(b);
    EXPECT_EQ(waitRead(rd, 0), 0) << "the new client has sent nothing";
    ASSERT_EQ(write(second, "y", 1), 1);
    rd = setOf(b);
    EXPECT_EQ(waitRead(rd, 5000), 1);
    EXPECT_TRUE(rd.isSet(b));
    closeDescriptor(b);
    close(first);
    close(second);
}

TEST(WaitFdsInterest, TerminalOpenedUnderAClosedNumberIsWatched) {
    int master = -1, slave = -1;
    ASSERT_EQ(openPtyPair(master, slave, O_RDWR), 0);
    FdSet rd = setOf(master);
    ASSERT_EQ(waitRead(rd, 0), 0);
    int const oldMaster = master;
    closeDescriptor(slave);
    closeDescriptor(master);
    ASSERT_EQ(openPtyPair(master, slave, O_RDWR), 0);
    ASSERT_EQ(master, oldMaster);

    ASSERT_EQ(write(slave, "z", 1), 1);
    rd = setOf(master);
    EXPECT_EQ(waitRead(rd, 5000), 1);
    EXPECT_TRUE(rd.isSet(master));
    closeDescriptor(slave);
    closeDescriptor(master);
}

TEST(WaitFdsInterest, ClosedDescriptorStillOpenInAChildNeverWakesTheLoop) {
    RecordedPair pair;
    int idle[2];
    ASSERT_EQ(pipe2(idle, O_CLOEXEC), 0);
    FdSet rd = setOf(pair.a);
    rd.add(idle[0]);
    ASSERT_EQ(waitRead(rd, 0), 0);
    CopyHolder child;
    closeDescriptor(pair.a);
    pair.a = -1;
    // The file behind the closed number is still open in the child, and ready now.
    ASSERT_EQ(write(pair.b, "w", 1), 1);

    for (int turn = 0; turn < 3; ++turn) {
        rd = setOf(idle[0]);
        EXPECT_EQ(waitRead(rd, 0), 0) << "turn " << turn;
    }
    close(idle[0]);
    close(idle[1]);
}

TEST(WaitFdsInterest, RegistrationOutlivingAnUnannouncedCloseIsNeitherReportedNorWakesTheLoop) {
    RecordedPair old;
    int idle[2];
    ASSERT_EQ(pipe2(idle, O_CLOEXEC), 0);
    FdSet rd = setOf(old.a);
    rd.add(idle[0]);
    ASSERT_EQ(waitRead(rd, 0), 0);
    CopyHolder child;
    // Closed without a word: the kernel keeps the registration of the file the child still holds.
    close(old.a);
    ASSERT_EQ(write(old.b, "w", 1), 1);

    // The number is no longer asked for.
    rd = setOf(idle[0]);
    EXPECT_EQ(waitRead(rd, 0), 0);
    auto start = std::chrono::steady_clock::now();
    rd = setOf(idle[0]);
    EXPECT_EQ(waitRead(rd, 300), 0);
    EXPECT_GE(elapsedMs(start), 290) << "the stale registration ended the wait early";

    // A new file under the number: only its own readiness counts.
    RecordedPair fresh;
    ASSERT_EQ(fresh.a, old.a);
    old.a = -1;
    rd = setOf(fresh.a);
    EXPECT_EQ(waitRead(rd, 0), 0);
    EXPECT_FALSE(rd.isSet(fresh.a));
    ASSERT_EQ(write(fresh.b, "v", 1), 1);
    rd = setOf(fresh.a);
    EXPECT_EQ(waitRead(rd, 5000), 1);
    EXPECT_TRUE(rd.isSet(fresh.a));
    close(idle[0]);
    close(idle[1]);
}

TEST(WaitFdsInterest, DescriptorNoLongerAskedForIsNotReported) {
    RecordedPair watched, other;
    FdSet rd = setOf(watched.a);
    rd.add(other.a);
    ASSERT_EQ(waitRead(rd, 0), 0);
    ASSERT_EQ(write(watched.b, "u", 1), 1);
    rd = setOf(other.a);
    EXPECT_EQ(waitRead(rd, 0), 0);
    EXPECT_FALSE(rd.isSet(watched.a));
    rd = setOf(watched.a);
    EXPECT_EQ(waitRead(rd, 0), 1) << "asked for again, it is watched again";
}

TEST(WaitFdsInterest, ReadinessIsWhatHoldsAtTheWait) {
    RecordedPair pair;
    ASSERT_EQ(write(pair.b, "t", 1), 1);
    FdSet rd = setOf(pair.a);
    ASSERT_EQ(waitRead(rd, 5000), 1);
    char byte;
    ASSERT_EQ(read(pair.a, &byte, 1), 1);
    rd = setOf(pair.a);
    EXPECT_EQ(waitRead(rd, 0), 0);
    EXPECT_FALSE(rd.isSet(pair.a));
}

TEST(WaitFdsInterest, WritableOnlyWhileAskedForWriting) {
    RecordedPair pair;
    FdSet rd = setOf(pair.a), wr = setOf(pair.a);
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    EXPECT_TRUE(wr.isSet(pair.a));
    rd = setOf(pair.a);
    wr.clear();
    EXPECT_EQ(waitFds(rd, wr, 0), 0) << "no write interest left behind";
    auto start = std::chrono::steady_clock::now();
    rd = setOf(pair.a);
    EXPECT_EQ(waitFds(rd, wr, 300), 0);
    EXPECT_GE(elapsedMs(start), 290) << "a writable descriptor nobody asked for ended the wait";
}

TEST(WaitFdsInterest, WriteInterestLeftBehindDoesNotEndABlockingWait) {
    RecordedPair pair;
    FdSet rd = setOf(pair.a), wr = setOf(pair.a);
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    // Asked for reading only now, on a wait with a time-out: it must last.
    rd = setOf(pair.a);
    wr.clear();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(waitFds(rd, wr, 300), 0);
    EXPECT_GE(elapsedMs(start), 290);
    ASSERT_EQ(write(pair.b, "p", 1), 1);
    rd = setOf(pair.a);
    EXPECT_EQ(waitFds(rd, wr, 5000), 1);
    EXPECT_TRUE(rd.isSet(pair.a));
}

TEST(WaitFdsInterest, RecordedDescriptorClosedWithoutAWordFailsWithEbadfWhenItEnters) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    noteDescriptorOpened(ends[0]);
    close(ends[0]);
    FdSet rd = setOf(ends[0]);
    errno = 0;
    EXPECT_EQ(waitRead(rd, 0), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(rd.isSet(ends[0])) << "the set is unchanged";
    close(ends[1]);
}

TEST(WaitFdsInterest, ForkedChildWaitingOnItsOwnLeavesTheParentsInterestAlone) {
    RecordedPair pair;
    FdSet rd = setOf(pair.a);
    ASSERT_EQ(waitRead(rd, 0), 0);
    pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        // Asks for nothing of the parent's: a shared instance would lose pair.a here.
        int own[2];
        if (pipe(own) != 0) _exit(2);
        FdSet childRd = setOf(own[0]), childWr;
        _exit(waitFds(childRd, childWr, 0) == 0 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_EQ(write(pair.b, "s", 1), 1);
    rd = setOf(pair.a);
    EXPECT_EQ(waitRead(rd, 5000), 1);
    EXPECT_TRUE(rd.isSet(pair.a));
}

TEST(WaitFdsInterest, InstanceClosedByCodeClosingTheWrongNumberIsMadeAgain) {
    RecordedPair pair;
    FdSet rd = setOf(pair.a);
    ASSERT_EQ(waitRead(rd, 0), 0);
    // Closes this thread's epoll instance, as a second close of a stale number would.
    DIR* dir = opendir("/proc/self/fd");
    ASSERT_NE(dir, nullptr);
    int closed = 0;
    while (dirent* e = readdir(dir)) {
        char target[64] = {};
        std::string path = std::string("/proc/self/fd/") + e->d_name;
        if (readlink(path.c_str(), target, sizeof target - 1) > 0 &&
            std::string(target) == "anon_inode:[eventpoll]") {
            close(std::atoi(e->d_name));
            ++closed;
        }
    }
    closedir(dir);
    ASSERT_EQ(closed, 1);
    ASSERT_EQ(write(pair.b, "r", 1), 1);
    rd = setOf(pair.a);
    EXPECT_EQ(waitRead(rd, 5000), 1);
    EXPECT_TRUE(rd.isSet(pair.a));
}

TEST(WaitFdsInterest, NewlyRecordedNumberIsNotSetInAnEarlierFilledSetUntilCleared) {
    RecordedPair ready;
    ASSERT_EQ(write(ready.b, "q", 1), 1);
    FdSet rd = setOf(ready.a);
    ASSERT_EQ(waitRead(rd, 5000), 1);
    noteDescriptorOpened(ready.a);  // as if the number had been handed out again
    EXPECT_FALSE(rd.isSet(ready.a));
    rd.clear();
    rd.add(ready.a);
    EXPECT_TRUE(rd.isSet(ready.a));
}
