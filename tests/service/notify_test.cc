// nxahost under a service manager: READY=1 once every module serves, STATUS=
// lines, WATCHDOG=1 while the loop turns, and nothing of it for the modules.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "clients.h"
#include "host_process.h"
#include "packages.h"
#include "sandbox.h"
#include "shell.h"

namespace e2e {
namespace {

// The service manager's end: a datagram socket the host is told about.
class NotifySocket {
public:
    NotifySocket() : path_(scratchDir() + "/notify-" + std::to_string(getpid())) {
        ::unlink(path_.c_str());
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path_.c_str(), sizeof addr.sun_path - 1);
        bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~NotifySocket() {
        ::close(fd_);
        ::unlink(path_.c_str());
    }
    bool bound() const { return bound_; }
    std::string const& path() const { return path_; }
    // The next datagram, or an empty text when none comes within `timeoutMs`.
    std::string next(int timeoutMs = 20000) const {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) != 1) return {};
        char buf[4096];
        ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
    }

private:
    std::string path_;
    int fd_ = -1;
    bool bound_ = false;
};

bool accepts(unsigned port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

std::string sources() {
    return scratchDir() + "/src";
}

TEST(Notify, ReadyOnceEveryModuleServesThenWatchdogWhileTheLoopTurns) {
    NXA_REQUIRE_SANDBOX();
    ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    // The programs say whether they were told of the service manager's socket.
    std::string const body = "printf 'notify:%s\\n' \"${NOTIFY_SOCKET:-none}\"; exec sleep 100000";
    installPackage(
        {writeModule(sources(), "alpha", "noarch", body), writeModule(sources(), "beta", "noarch", body)});
    NotifySocket manager;
    ASSERT_TRUE(manager.bound());
    HostProcess host({"alpha", "beta"}, {"NOTIFY_SOCKET=" + manager.path(), "WATCHDOG_USEC=400000"});

    std::string const ready = manager.next();
    ASSERT_EQ(ready, "READY=1\nSTATUS=2 modules: 2 running, 0 restarting, 0 ended") << describe(host);
    // By then every port accepts, and the host has said where the modules run.
    EXPECT_TRUE(accepts(20100));
    EXPECT_TRUE(accepts(20101));
    EXPECT_EQ(host.countLine(runsOnPortLine("beta", 20101)), 1) << describe(host);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(manager.next(2000), "WATCHDOG=1") << "watchdog " << i;

    Background client(ncCommand(20100));
    EXPECT_TRUE(client.waitFor("notify:none\n")) << client.output();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST(Notify, AProgramThatEndsChangesTheStatus) {
    NXA_REQUIRE_SANDBOX();
    ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    installPackage({writeModule(sources(), "quick", "noarch", "read -r line; exit 4")});
    NotifySocket manager;
    ASSERT_TRUE(manager.bound());
    HostProcess host({"quick"}, {"NOTIFY_SOCKET=" + manager.path()});
    ASSERT_EQ(manager.next(), "READY=1\nSTATUS=1 modules: 1 running, 0 restarting, 0 ended")
        << describe(host);
    Background client(ncCommand(20100), true);
    client.send("end\n");
    EXPECT_EQ(manager.next(), "STATUS=1 modules: 0 running, 1 restarting, 0 ended") << describe(host);
    EXPECT_EQ(manager.next(), "STATUS=1 modules: 1 running, 0 restarting, 0 ended") << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

}  // namespace
}  // namespace e2e
