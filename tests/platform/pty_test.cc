// openPtyPair: a raw terminal pair from the start, and nothing left open on failure.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "shell.h"
#include "vlplatform/net.h"

namespace {

std::string const kAwkward("\x00\x0d\x0a\x03\xff", 5);

// A pair from openPtyPair, closed on destruction.
struct Pty {
    int master = -1;
    int slave = -1;
    int rc;
    explicit Pty(int flags = O_RDWR) : rc(openPtyPair(master, slave, flags)) {}
    ~Pty() {
        if (master >= 0) close(master);
        if (slave >= 0) close(slave);
    }
};

// Reads until `n` bytes have come or 10 seconds pass without any.
std::string readBytes(int fd, std::size_t n) {
    std::string got;
    while (got.size() < n) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 10000) != 1) break;
        char buf[256];
        ssize_t r = read(fd, buf, std::min(sizeof buf, n - got.size()));
        if (r <= 0) break;
        got.append(buf, static_cast<std::size_t>(r));
    }
    return got;
}

bool hasInput(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, timeoutMs) == 1;
}

// The lowest descriptor number that is free now.
int lowestFreeDescriptor() {
    int fd = dup(0);
    close(fd);
    return fd;
}

}  // namespace

TEST(OpenPtyPair, OpensMasterAndSlave) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0) << strerror(errno);
    EXPECT_GE(pty.master, 0);
    EXPECT_GE(pty.slave, 0);
    EXPECT_TRUE(isatty(pty.slave));
    EXPECT_EQ(fcntl(pty.master, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(pty.slave, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST(OpenPtyPair, FlagsApplyToTheMaster) {
    Pty pty(O_RDWR | O_NONBLOCK | O_CLOEXEC);
    ASSERT_EQ(pty.rc, 0) << strerror(errno);
    EXPECT_TRUE(fcntl(pty.master, F_GETFL) & O_NONBLOCK);
    EXPECT_TRUE(fcntl(pty.master, F_GETFD) & FD_CLOEXEC);
    EXPECT_FALSE(fcntl(pty.slave, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(pty.slave, F_GETFD) & FD_CLOEXEC);
}

TEST(OpenPtyPair, MasterNeverWaitsWhileTheProgramsSlaveBlocks) {
    Pty pty(O_RDWR);
    ASSERT_EQ(pty.rc, 0) << strerror(errno);
    EXPECT_TRUE(fcntl(pty.master, F_GETFL) & O_NONBLOCK);
    EXPECT_FALSE(fcntl(pty.slave, F_GETFL) & O_NONBLOCK);
    char byte;
    errno = 0;
    EXPECT_EQ(read(pty.master, &byte, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(OpenPtyPair, TerminalIsRawFromTheStart) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0);
    termios attrs;
    ASSERT_EQ(tcgetattr(pty.slave, &attrs), 0);
    EXPECT_EQ(attrs.c_lflag & (ECHO | ICANON | ISIG | IEXTEN), 0u);
    EXPECT_EQ(attrs.c_oflag & OPOST, 0u);
    EXPECT_EQ(attrs.c_iflag & (ICRNL | INLCR | IGNCR | IXON | ISTRIP | BRKINT | PARMRK), 0u);
    EXPECT_EQ(attrs.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
}

TEST(OpenPtyPair, BytesPassUnchangedFromMasterToSlave) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0);
    ASSERT_EQ(write(pty.master, kAwkward.data(), kAwkward.size()), 5);
    EXPECT_EQ(readBytes(pty.slave, 5), kAwkward);
    EXPECT_FALSE(hasInput(pty.master, 200)) << "echoed back";
}

TEST(OpenPtyPair, BytesPassUnchangedFromSlaveToMaster) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0);
    ASSERT_EQ(write(pty.slave, kAwkward.data(), kAwkward.size()), 5);
    EXPECT_EQ(readBytes(pty.master, 5), kAwkward);
}

TEST(OpenPtyPair, ChildWritingFirstArrivesUnchanged) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0);
    std::string line = "starting module\n" + kAwkward;
    pid_t pid = fork();
    if (pid == 0) {
        (void)!write(pty.slave, line.data(), line.size());
        _exit(0);
    }
    ASSERT_GT(pid, 0);
    EXPECT_EQ(readBytes(pty.master, line.size()), line);
    int status;
    waitpid(pid, &status, 0);
}

TEST(OpenPtyPair, SlaveDoesNotBecomeControllingTerminal) {
    Pty pty;
    ASSERT_EQ(pty.rc, 0);
    pid_t pid = fork();
    if (pid == 0) {
        setsid();
        int master, slave;
        if (openPtyPair(master, slave, O_RDWR) != 0) _exit(2);
        int tty = open("/dev/tty", O_RDWR);
        _exit(tty == -1 && errno == ENXIO ? 0 : 1);
    }
    ASSERT_GT(pid, 0);
    int status;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(OpenPtyPair, FailureLeavesNothingOpen) {
    int before = nxatest::openDescriptorCount();
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    // Room for the master only: the slave cannot be opened.
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFreeDescriptor()) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    int master = -7, slave = -8;
    errno = 0;
    int rc = openPtyPair(master, slave, O_RDWR);
    int err = errno;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(err, EMFILE);
    EXPECT_EQ(master, -7);
    EXPECT_EQ(slave, -8);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}
