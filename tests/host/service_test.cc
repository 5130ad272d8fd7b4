// The kit's service parts: the service manager's messages with a clock the
// test moves, how failures while serving are counted, and which port each
// running module has.
#include <gtest/gtest.h>
#include <nxahost/module_ports.h>
#include <nxahost/serve_failures.h>
#include <nxahost/service_notifier.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "capture.h"
#include "fakes.h"

namespace hosttest {
namespace {

// The service manager's end: a datagram socket named in NOTIFY_SOCKET.
class NotifySocket {
public:
    NotifySocket() : path_("/tmp/nxahost-notify-" + std::to_string(getpid())) {
        ::unlink(path_.c_str());
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        ::setenv("NOTIFY_SOCKET", path_.c_str(), 1);
    }
    ~NotifySocket() {
        ::close(fd_);
        ::unlink(path_.c_str());
        ::unsetenv("NOTIFY_SOCKET");
    }
    // Every datagram that has arrived, one a string.
    std::vector<std::string> received() {
        std::vector<std::string> all;
        char buffer[4096];
        ssize_t n;
        while ((n = ::recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
            all.emplace_back(buffer, static_cast<std::size_t>(n));
        return all;
    }

private:
    std::string path_;
    int fd_ = -1;
};

TEST(ServiceNotifier, SaysReadyThenOnlyStatusesThatChangeAndTakesTheVariablesAway) {
    NotifySocket manager;
    FakeClock clock;
    nxahost::ServiceNotifier notifier(clock);
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr) << "the module programs must not find it";
    notifier.ready("2 modules: 2 running, 0 restarting, 0 ended");
    notifier.status("2 modules: 2 running, 0 restarting, 0 ended");
    notifier.status("2 modules: 1 running, 1 restarting, 0 ended");
    EXPECT_EQ(manager.received(),
              (std::vector<std::string>{"READY=1\nSTATUS=2 modules: 2 running, 0 restarting, 0 ended",
                                        "STATUS=2 modules: 1 running, 1 restarting, 0 ended"}));
    EXPECT_FALSE(notifier.nextWatchdog()) << "no watchdog asked for";
}

TEST(ServiceNotifier, PetsTheWatchdogEveryHalfInterval) {
    NotifySocket manager;
    ::setenv("WATCHDOG_USEC", "4000000", 1);
    FakeClock clock;
    nxahost::ServiceNotifier notifier(clock);
    EXPECT_EQ(std::getenv("WATCHDOG_USEC"), nullptr);
    ASSERT_TRUE(notifier.nextWatchdog());
    EXPECT_EQ(*notifier.nextWatchdog() - clock.now(), std::chrono::seconds(2));
    clock.advance(1999ms);
    notifier.turned();
    EXPECT_TRUE(manager.received().empty());
    clock.advance(1ms);
    notifier.turned();
    EXPECT_EQ(manager.received(), (std::vector<std::string>{"WATCHDOG=1"}));
    EXPECT_EQ(*notifier.nextWatchdog() - clock.now(), std::chrono::seconds(2));
}

TEST(ServiceNotifier, AWatchdogMeantForAnotherProcessIsNotPetted) {
    NotifySocket manager;
    ::setenv("WATCHDOG_USEC", "4000000", 1);
    ::setenv("WATCHDOG_PID", "1", 1);
    FakeClock clock;
    nxahost::ServiceNotifier notifier(clock);
    EXPECT_FALSE(notifier.nextWatchdog());
}

TEST(ServiceNotifier, WithoutAServiceManagerNothingIsSent) {
    ::unsetenv("NOTIFY_SOCKET");
    FakeClock clock;
    nxahost::ServiceNotifier notifier(clock);
    notifier.ready("x");
    notifier.turned();
    EXPECT_FALSE(notifier.nextWatchdog());
}

using Time = std::chrono::steady_clock::time_point;

TEST(ServeFailures, AnErrorIsWrittenOnceThenCountedAtMostOnceASecond) {
    nxatest::Capture out;
    nxahost::ServeFailures failures;
    Time const start{};
    IOException const error(EIO, "cannot read from PTTY");
    EXPECT_FALSE(failures.failed(error, start));
    for (int i = 1; i <= 10; ++i)
        EXPECT_FALSE(failures.failed(error, start + std::chrono::milliseconds(i * 90)));
    EXPECT_FALSE(failures.failed(error, start + 1100ms));
    EXPECT_FALSE(failures.failed(error, start + 1150ms));
    failures.served(start + 1200ms);
    EXPECT_EQ(out.release(),
              "[ERROR] nxahost: cannot read from PTTY: Input/output error\n"
              "[ERROR] nxahost: the last error came again 11 times\n"
              "[ERROR] nxahost: the last error came again 1 time\n");
}

TEST(ServeFailures, OnlyErrorsOnEveryTurnForTenSecondsEndTheHost) {
    nxatest::Capture out;
    nxahost::ServeFailures failures;
    Time const start{};
    IOException const error(EIO, "cannot write to PTY master");
    EXPECT_FALSE(failures.failed(error, start));
    EXPECT_FALSE(failures.failed(error, start + 9999ms));
    failures.served(start + 10s);
    EXPECT_FALSE(failures.failed(error, start + 11s)) << "a served turn starts the count again";
    EXPECT_TRUE(failures.failed(error, start + 21s));
    EXPECT_NE(out.release().find("[ERROR] nxahost: every turn has failed for 10 s; giving up\n"),
              std::string::npos);
}

TEST(ServeFailures, AClientsFaultNamesTheClient) {
    std::string peer;
    EXPECT_TRUE(nxahost::isClientFault("cannot read from telnet:7: Connection reset by peer", peer));
    EXPECT_EQ(peer, "telnet:7");
    EXPECT_TRUE(nxahost::isClientFault("cannot write to telnet:12: Broken pipe", peer));
    EXPECT_EQ(peer, "telnet:12");
    EXPECT_TRUE(nxahost::isClientFault("EOF on telnet:3", peer));
    EXPECT_EQ(peer, "telnet:3");
    EXPECT_FALSE(nxahost::isClientFault("cannot read from PTTY: Input/output error", peer));
    EXPECT_FALSE(nxahost::isClientFault("cannot write to PTY master: Input/output error", peer));
}

TEST(ModulePorts, EachRunningModuleKeepsThePortOfItsPlaceInTheConfiguration) {
    std::vector<nxahost::ModulePort> const ports =
        nxahost::runningModulePorts({"a", "b", "c", "d"}, 3, 20100, {"a", "c"});
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].name, "a");
    EXPECT_EQ(ports[0].port, 20100);
    EXPECT_EQ(ports[1].name, "c");
    EXPECT_EQ(ports[1].port, 20102);
    std::vector<nxahost::ModulePort> const wrapped =
        nxahost::runningModulePorts({"x", "y"}, 16, 65535, {"x", "y"});
    EXPECT_EQ(wrapped[1].port, 0) << "past 65535 the system chooses";
}

}  // namespace
}  // namespace hosttest
