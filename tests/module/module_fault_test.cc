// A running module's failure paths, driven by replacing system calls and
// platform functions in this binary: the terminal's end of file, read and
// write errors, partial writes, fork and terminal-setting failures, a child
// that fails before its program starts, and what stop() closes and stops.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/proc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#include "alloc_counter.h"
#include "capture.h"
#include "interpose.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace fault {

// read(): on `readFd`, return `readResult` (0, or -1 with `readErrno`).
std::atomic<int> readFd{-1};
std::atomic<int> readResult{0};
std::atomic<int> readErrno{0};
// write(): on `writeFd`, write at most `writeLimit` bytes (when > 0), or
// return `writeResult` (0, or -1 with `writeErrno`) when writeLimit is 0.
std::atomic<int> writeFd{-1};
std::atomic<long> writeLimit{0};
std::atomic<int> writeResult{0};
std::atomic<int> writeErrno{0};
// close(): recorded while `recordCloses`.
std::atomic<bool> recordCloses{false};
std::mutex closesMutex;
std::vector<int> closes;
// Child-side calls fail with these error numbers (0: no fault).
std::atomic<int> setsidErrno{0};
std::atomic<int> ttyErrno{0};
std::atomic<int> dup2Errno{0};
std::atomic<pid_t> dup2Parent{0};  // dup2 fails only in processes other than this one
// Parent-side calls on the terminal master.
std::atomic<int> tcgetattrFd{-1};
std::atomic<int> tcsetattrFd{-1};
std::atomic<int> forkErrno{0};
std::atomic<int> forkCalls{0};
std::mutex stopsMutex;
std::vector<pid_t> stops;
// Calls of read() and write() on `countFd` while counting.
std::atomic<int> countFd{-1};
std::atomic<int> countedCalls{0};

std::vector<int> recordedCloses() {
    std::lock_guard<std::mutex> lock(closesMutex);
    return closes;
}

std::vector<pid_t> recordedStops() {
    std::lock_guard<std::mutex> lock(stopsMutex);
    return stops;
}

}  // namespace fault

extern "C" ssize_t read(int fd, void* buf, size_t count) {
    static auto next = nxatest::nextDefinition<ssize_t (*)(int, void*, size_t)>("read");
    if (fd >= 0 && fd == fault::countFd) ++fault::countedCalls;
    if (fd >= 0 && fd == fault::readFd) {
        errno = fault::readErrno;
        return fault::readResult;
    }
    return next(fd, buf, count);
}

extern "C" ssize_t write(int fd, void const* buf, size_t count) {
    static auto next = nxatest::nextDefinition<ssize_t (*)(int, void const*, size_t)>("write");
    if (fd >= 0 && fd == fault::countFd) ++fault::countedCalls;
    if (fd >= 0 && fd == fault::writeFd) {
        long limit = fault::writeLimit;
        if (limit > 0)
            return next(fd, buf, count < static_cast<size_t>(limit) ? count : static_cast<size_t>(limit));
        errno = fault::writeErrno;
        return fault::writeResult;
    }
    return next(fd, buf, count);
}

extern "C" int close(int fd) {
    static auto next = nxatest::nextDefinition<int (*)(int)>("close");
    if (fault::recordCloses) {
        std::lock_guard<std::mutex> lock(fault::closesMutex);
        fault::closes.push_back(fd);
    }
    return next(fd);
}

extern "C" pid_t setsid() __THROW {
    static auto next = nxatest::nextDefinition<pid_t (*)()>("setsid");
    if (int err = fault::setsidErrno) {
        errno = err;
        return -1;
    }
    return next();
}

extern "C" int dup2(int from, int to) __THROW {
    static auto next = nxatest::nextDefinition<int (*)(int, int)>("dup2");
    if (int err = fault::dup2Errno) {
        if (::getpid() != fault::dup2Parent) {
            errno = err;
            return -1;
        }
    }
    return next(from, to);
}

extern "C" int ioctl(int fd, unsigned long request, ...) __THROW {
    static auto next = nxatest::nextDefinition<int (*)(int, unsigned long, void*)>("ioctl");
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    if (request == TIOCSCTTY) {
        if (int err = fault::ttyErrno) {
            errno = err;
            return -1;
        }
    }
    return next(fd, request, arg);
}

extern "C" int tcgetattr(int fd, termios* attrs) __THROW {
    static auto next = nxatest::nextDefinition<int (*)(int, termios*)>("tcgetattr");
    if (fd >= 0 && fd == fault::tcgetattrFd) {
        errno = EIO;
        return -1;
    }
    return next(fd, attrs);
}

extern "C" int tcsetattr(int fd, int action, termios const* attrs) __THROW {
    static auto next = nxatest::nextDefinition<int (*)(int, int, termios const*)>("tcsetattr");
    if (fd >= 0 && fd == fault::tcsetattrFd) {
        errno = ENOTTY;
        return -1;
    }
    return next(fd, action, attrs);
}

pid_t Proc::fork() {
    static auto next = nxatest::nextDefinition<pid_t (*)(Proc*)>("_ZN4Proc4forkEv");
    ++fault::forkCalls;
    if (int err = fault::forkErrno) {
        errno = err;
        return -1;
    }
    return next(this);
}

void Proc::stop(pid_t pid) {
    static auto next = nxatest::nextDefinition<void (*)(Proc*, pid_t)>("_ZN4Proc4stopEi");
    {
        std::lock_guard<std::mutex> lock(fault::stopsMutex);
        fault::stops.push_back(pid);
    }
    next(this, pid);
}

namespace {

using nxamodtest::Access;
using nxamodtest::pollForRunLog;
using nxamodtest::pollOnce;
using nxamodtest::pollUntil;
using nxamodtest::writeScript;

constexpr unsigned short kPort = 20100;
constexpr char kMarker[] = "/tmp/nxa-module-after-run";

bool isOpen(int fd) {
    return fd >= 0 && ::fcntl(fd, F_GETFD) != -1;
}

// Appends this process's id to the marker file: what a test does once run() is back.
void markReturn() {
    std::string line = std::to_string(::getpid()) + "\n";
    int fd = ::open(kMarker, O_WRONLY | O_CREAT | O_APPEND, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    ::close(fd);
}

class ModuleFault : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }
    void TearDown() override {
        fault::readFd = -1;
        fault::writeFd = -1;
        fault::recordCloses = false;
        fault::tcgetattrFd = -1;
        fault::tcsetattrFd = -1;
        module.reset();
        NXAClient::debug = 0;
    }

    NXAClient::Module& make() {
        module = std::make_unique<NXAClient::Module>("demo", kPort, proc);
        return *module;
    }
    // Module demo running `script`, its starting line drained from the run log.
    NXAClient::Module& start(std::string const& script) {
        writeScript("demo", script);
        make();
        nxamodtest::runModule(*module);
        std::string log;
        EXPECT_TRUE(pollForRunLog(*module, log, "\n")) << log;
        return *module;
    }
    int master() const { return Access::master(*module); }
    int slave() const { return Access::slave(*module); }

    Proc proc{::getpid()};
    std::unique_ptr<NXAClient::Module> module;
};

// Linux never reports the end of file while the parent holds the slave, so
// the end of file is made by read() itself.
TEST_F(ModuleFault, EndOfFileOnTheTerminalClosesBothSidesAndDropsThemFromThePoll) {
    start("read go; echo more; exec sleep 60");
    int m = master(), s = slave();
    pid_t child = Access::childpid(*module);
    NXAClient::debug = 1;
    nxatest::Capture capture;
    fault::readFd = m;
    fault::readResult = 0;
    fault::readErrno = 0;
    // The program's answer makes the terminal readable.
    Access::bufConn2Child(*module) = "go\n";
    ASSERT_TRUE(pollUntil(*module, [&] { return master() == -1; }));
    fault::readFd = -1;
    std::string trace = capture.release();
    EXPECT_EQ(trace, "[DEBUG] NXAModule::handleInput() pid=" + std::to_string(::getpid()) +
                         ": close master=" + std::to_string(m) + " slave=" + std::to_string(s) + "\n");
    EXPECT_EQ(slave(), -1);
    EXPECT_FALSE(isOpen(m));
    EXPECT_FALSE(isOpen(s));
    EXPECT_EQ(::kill(child, 0), 0);  // not stopped here
    EXPECT_EQ(Access::childpid(*module), child);

    // Input still gathers but the terminal is no longer watched.
    Access::bufConn2Child(*module) = "more input\n";
    FdSet rd, wr;
    module->addFds(rd, wr);
    EXPECT_EQ(wr.count(), 0);
    EXPECT_TRUE(rd.isSet(Access::serverfd(*module)));
    EXPECT_EQ(rd.count(), std::max(Access::serverfd(*module), module->getBus()->fd()) + 1);
    pollOnce(*module, 10);
    EXPECT_EQ(Access::bufConn2Child(*module), "more input\n");
}

TEST_F(ModuleFault, ReadErrorThrowsAndLeavesTheTerminalOpen) {
    start("exec sleep 60");
    int m = master();
    NXAClient::debug = 2;
    nxatest::Capture capture;
    fault::readErrno = EIO;
    fault::readResult = -1;
    fault::readFd = m;
    try {
        // The terminal is not readable by itself now: ask for it anyway.
        FdSet rd;
        rd.add(m);
        module->handleInput(rd);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "cannot read from PTTY: Input/output error");
        EXPECT_EQ(e.code().value(), EIO);
    }
    fault::readFd = -1;
    EXPECT_EQ(capture.release(), "[DEBUG] NXAModule::handleInput() read (-1) data from the PTY master=" +
                                     std::to_string(m) + " to bufChild2Conn\n");
    EXPECT_EQ(master(), m);
    EXPECT_TRUE(isOpen(m));
    EXPECT_TRUE(isOpen(slave()));
}

TEST_F(ModuleFault, PartialWritesKeepTheRemainderInOrder) {
    start("exec cat");
    int m = master();
    fault::writeLimit = 3;
    fault::writeFd = m;
    NXAClient::debug = 2;
    nxatest::Capture capture;
    Access::bufConn2Child(*module) = "abcdefgh";
    std::vector<std::string> left;
    while (!Access::bufConn2Child(*module).empty() && left.size() < 10) {
        pollOnce(*module);
        left.push_back(Access::bufConn2Child(*module));
    }
    std::string trace = capture.release();
    fault::writeFd = -1;
    NXAClient::debug = 0;
    // Turns in which only the echo was read leave the input as it was.
    left.erase(std::unique(left.begin(), left.end()), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"defgh", "gh", ""}));
    std::string prefix = "[DEBUG] NXAModule::handleOutput() write (";
    std::string suffix = ") data from bufConn2Child to the PTY master=" + std::to_string(m) + "\n";
    EXPECT_NE(trace.find(prefix + "8/3" + suffix), std::string::npos) << trace;
    EXPECT_NE(trace.find(prefix + "5/3" + suffix), std::string::npos) << trace;
    EXPECT_NE(trace.find(prefix + "2/2" + suffix), std::string::npos) << trace;
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "h"));
    EXPECT_EQ(log, "abcdefgh");
}

TEST_F(ModuleFault, WriteErrorThrowsAndKeepsTheInput) {
    start("exec sleep 60");
    int m = master();
    fault::writeLimit = 0;
    fault::writeResult = -1;
    fault::writeErrno = EIO;
    fault::writeFd = m;
    Access::bufConn2Child(*module) = "abc";
    FdSet wr;
    wr.add(m);
    try {
        module->handleOutput(wr);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "cannot write to PTY master: Input/output error");
        EXPECT_EQ(e.code().value(), EIO);
    }
    fault::writeFd = -1;
    EXPECT_EQ(Access::bufConn2Child(*module), "abc");
    EXPECT_EQ(master(), m);
    EXPECT_TRUE(isOpen(m));
}

TEST_F(ModuleFault, WriteOfNothingClosesTheTerminal) {
    start("exec sleep 60");
    int m = master(), s = slave();
    fault::writeLimit = 0;
    fault::writeResult = 0;
    fault::writeErrno = 0;
    fault::writeFd = m;
    Access::bufConn2Child(*module) = "abc";
    NXAClient::debug = 2;
    nxatest::Capture capture;
    FdSet wr;
    wr.add(m);
    module->handleOutput(wr);
    std::string trace = capture.release();
    fault::writeFd = -1;
    std::string pid = std::to_string(::getpid());
    EXPECT_EQ(trace,
              "[DEBUG] NXAModule::handleOutput() write (3/0) data from bufConn2Child to the PTY master=" +
                  std::to_string(m) + "\n[DEBUG] NXAModule::handleOutput() pid=" + pid +
                  "EOF: close master=" + std::to_string(m) + " slave=" + std::to_string(s) + "\n");
    EXPECT_EQ(master(), -1);
    EXPECT_EQ(slave(), -1);
    EXPECT_FALSE(isOpen(m));
    EXPECT_EQ(Access::bufConn2Child(*module), "abc");
}

// A turn in which nothing is ready touches neither the terminal nor the heap.
TEST_F(ModuleFault, QuietTurnAllocatesNothingAndLeavesTheTerminalAlone) {
    start("exec sleep 60");
    FdSet rd, wr;
    auto turn = [&] {
        rd.clear();
        wr.clear();
        module->addFds(rd, wr);
        EXPECT_EQ(waitFds(rd, wr, 0), 0);
        module->handleInput(rd);
        module->handleOutput(wr);
    };
    for (int i = 0; i < 3; ++i) turn();  // the sets and the wait's buffer have grown
    fault::countFd = master();
    fault::countedCalls = 0;
    long const before = nxatest::allocations();
    for (int i = 0; i < 10; ++i) turn();
    long const made = nxatest::allocations() - before;
    fault::countFd = -1;
    EXPECT_EQ(made, 0);
    EXPECT_EQ(fault::countedCalls, 0);
}

// A turn with output makes one read of the terminal and no write to it.
TEST_F(ModuleFault, TurnWithOutputReadsTheTerminalOnce) {
    start("read go; echo more; exec sleep 60");
    Access::bufConn2Child(*module) = "go\n";
    pollOnce(*module);
    int m = master();
    ASSERT_TRUE(nxatest::waitUntil([&] {
        int waiting = 0;
        return ::ioctl(m, FIONREAD, &waiting) == 0 && waiting == 5;
    }));
    fault::countFd = m;
    fault::countedCalls = 0;
    long const before = nxatest::allocations();
    pollOnce(*module);
    long const made = nxatest::allocations() - before;
    fault::countFd = -1;
    EXPECT_EQ(fault::countedCalls, 1);
    EXPECT_GT(made, 0);  // the shared chunk: the counter does count
    std::string log;
    module->getRunLog(log);
    EXPECT_EQ(log, "more\n");
}

// The numbers are closed again on purpose; nothing is opened in between here.
TEST_F(ModuleFault, StopTwiceClosesTheSameNumbersAndStopsTheChildOnce) {
    start("exec sleep 60");
    int serverfd = Access::serverfd(*module), m = master(), s = slave();
    pid_t child = Access::childpid(*module);
    fault::recordCloses = true;
    module->stop();
    module->stop();
    fault::recordCloses = false;
    std::vector<int> ours;
    for (int fd : fault::recordedCloses()) {
        if (fd == serverfd || fd == m || fd == s) ours.push_back(fd);
    }
    EXPECT_EQ(ours, (std::vector<int>{serverfd, m, s, serverfd, m, s}));
    EXPECT_EQ(fault::recordedStops(), (std::vector<pid_t>{child}));
    module.reset();
    EXPECT_EQ(fault::recordedStops(), (std::vector<pid_t>{child}));
}

TEST_F(ModuleFault, StopOnAModuleNeverRunClosesThreeDescriptorsAndStopsNoChild) {
    make();
    int serverfd = Access::serverfd(*module), m = master(), s = slave();
    fault::recordCloses = true;
    module->stop();
    fault::recordCloses = false;
    std::vector<int> ours;
    for (int fd : fault::recordedCloses()) {
        if (fd == serverfd || fd == m || fd == s) ours.push_back(fd);
    }
    EXPECT_EQ(ours, (std::vector<int>{serverfd, m, s}));
    EXPECT_TRUE(fault::recordedStops().empty());
    EXPECT_EQ(fault::forkCalls, 0);
}

TEST_F(ModuleFault, ForkFailureThrowsAndClosesTheTerminal) {
    writeScript("demo", "exec sleep 60");
    make();
    int m = master(), s = slave(), serverfd = Access::serverfd(*module);
    fault::forkErrno = EAGAIN;
    try {
        nxamodtest::runModule(*module);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "cannot fork: Resource temporarily unavailable");
        EXPECT_EQ(e.code().value(), EAGAIN);
    }
    fault::forkErrno = 0;
    EXPECT_EQ(fault::forkCalls, 1);
    EXPECT_EQ(Access::childpid(*module), -1);
    EXPECT_EQ(master(), -1);
    EXPECT_EQ(slave(), -1);
    EXPECT_FALSE(isOpen(m));
    EXPECT_FALSE(isOpen(s));
    EXPECT_TRUE(isOpen(serverfd));
}

TEST_F(ModuleFault, UnreadableTerminalSettingsThrowWithTheChildAlreadyRunning) {
    writeScript("demo", "exec sleep 60");
    make();
    int m = master();
    fault::tcgetattrFd = m;
    try {
        nxamodtest::runModule(*module);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "tcgetattr: Input/output error");
    }
    fault::tcgetattrFd = -1;
    pid_t child = Access::childpid(*module);
    ASSERT_GT(child, 0);
    EXPECT_EQ(::kill(child, 0), 0);
    EXPECT_EQ(master(), -1);
    EXPECT_EQ(slave(), -1);
    EXPECT_FALSE(isOpen(m));
    module->stop();
    EXPECT_EQ(fault::recordedStops(), (std::vector<pid_t>{child}));
}

TEST_F(ModuleFault, UnwritableTerminalSettingsThrowAndCloseTheTerminal) {
    writeScript("demo", "exec sleep 60");
    make();
    int m = master();
    fault::tcsetattrFd = m;
    try {
        nxamodtest::runModule(*module);
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_STREQ(e.what(), "tcsetattr: Inappropriate ioctl for device");
    }
    fault::tcsetattrFd = -1;
    EXPECT_GT(Access::childpid(*module), 0);
    EXPECT_EQ(master(), -1);
    EXPECT_FALSE(isOpen(m));
}

// The child fails before its program starts: the exception surfaces in the
// child's copy of the test process, which the harness ends at once. The test
// process alone goes on past run().
class ModuleChildCopy : public ModuleFault {
protected:
    void expectCopyEndsWith(std::string const& what) {
        ::unlink(kMarker);
        ::unlink(nxamodtest::kChildCopyReport);
        writeScript("demo", "exec sleep 60");
        make();
        EXPECT_EQ(nxamodtest::testProcessCount(), 1);
        EXPECT_NO_THROW(nxamodtest::runModule(*module));
        markReturn();
        pid_t child = Access::childpid(*module);
        ASSERT_GT(child, 0);
        nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(child);
        ASSERT_TRUE(end.ended);
        EXPECT_EQ(end.code, CLD_EXITED);
        EXPECT_EQ(end.status, nxamodtest::kChildCopyFailed);
        EXPECT_EQ(nxatest::readFile(nxamodtest::kChildCopyReport), what);
        EXPECT_EQ(nxatest::readFile(kMarker), std::to_string(::getpid()) + "\n");
        EXPECT_EQ(nxamodtest::testProcessCount(), 1);
        // The program never ran, so nothing came through the terminal.
        std::string log;
        pollOnce(*module, 50);
        module->getRunLog(log);
        EXPECT_EQ(log, "");
        module->stop();
        EXPECT_EQ(fault::recordedStops(), (std::vector<pid_t>{child}));
        EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), -1);  // reaped by stop()
        EXPECT_EQ(nxamodtest::testProcessCount(), 1);
    }
};

TEST_F(ModuleChildCopy, ChildThatCannotStartASessionEndsItsCopyOfTheTestProcess) {
    fault::setsidErrno = EPERM;
    expectCopyEndsWith("cannot set session leader: Operation not permitted");
    fault::setsidErrno = 0;
}

TEST_F(ModuleChildCopy, ChildThatCannotReplaceItsStandardDescriptorsEndsItsCopyOfTheTestProcess) {
    fault::dup2Parent = ::getpid();
    fault::dup2Errno = EBADF;
    expectCopyEndsWith("cannot replace stdin/stdout/stderr of NXA child: Bad file descriptor");
    fault::dup2Errno = 0;
}

// Written by the child before its standard output becomes the terminal, so it
// reaches the test's own standard output.
TEST_F(ModuleFault, ControllingTerminalFailureIsOnlyTracedAndTheProgramRuns) {
    writeScript("demo",
                "if (exec 3</dev/tty) 2>/dev/null; then echo ctty=yes; else echo ctty=no; fi; exec sleep 60");
    make();
    fault::ttyErrno = EPERM;
    NXAClient::debug = 1;
    nxatest::Capture capture;
    nxamodtest::runModule(*module);
    fault::ttyErrno = 0;
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "ctty=no\n")) << log;
    std::string trace = capture.release();
    std::string me = std::to_string(::getpid());
    // The child's line and the parent's last one race; each is whole.
    std::vector<std::string> lines;
    for (std::size_t at = 0, end; (end = trace.find('\n', at)) != std::string::npos; at = end + 1)
        lines.push_back(trace.substr(at, end - at));
    std::sort(lines.begin(), lines.end());
    std::vector<std::string> expected = {
        "[DEBUG] NXAModule::run() cannot set new controlling tty: Operation not permitted, ignored",
        "[DEBUG] NXAModule::run() pid=" + me + " done", "[DEBUG] NXAModule::run() pid=" + me + " name=demo"};
    EXPECT_EQ(lines, expected) << trace;
}

TEST_F(ModuleFault, ControllingTerminalFailureWritesNothingAtLevelZero) {
    writeScript("demo", "echo started; exec sleep 60");
    make();
    fault::ttyErrno = EPERM;
    nxatest::Capture capture;
    nxamodtest::runModule(*module);
    fault::ttyErrno = 0;
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "started\n")) << log;
    EXPECT_EQ(capture.release(), "");
}

}  // namespace
