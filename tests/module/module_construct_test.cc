// Module construction: listening socket, raw terminal pair, bus connection with
// its retries and the module's announcement; the run-log queries.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "capture.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using nxamodtest::Access;

constexpr unsigned short kPort = 20100;
constexpr char kEstablished[] = "[INFO] NXAModule::Module() connection to VLPBus server established\n";
constexpr char kRetrying[] =
    "[WARNING] NXAModule::Module() connection to VLPBus server failed, retrying...\n";

bool isOpen(int fd) {
    return fd >= 0 && ::fcntl(fd, F_GETFD) != -1;
}

int countOf(std::string const& text, std::string const& part) {
    int n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// A socket listening on every address at `port`, as another program would hold it.
int occupyPort(unsigned short port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(::listen(fd, 1), 0);
    return fd;
}

class ModuleConstruction : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }
    void TearDown() override { NXAClient::debug = 0; }

    // A module named demo on kPort, its construction's standard output in `trace`.
    std::unique_ptr<NXAClient::Module> make(std::string const& name = "demo") {
        nxatest::Capture capture;
        auto module = std::make_unique<NXAClient::Module>(name, kPort, proc);
        trace = capture.release();
        return module;
    }

    Proc proc{::getpid()};
    std::string trace;
};

TEST_F(ModuleConstruction, ListensOnAllAddressesAtItsPortWithABacklogOfOne) {
    auto module = make();
    int fd = Access::serverfd(*module);
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    EXPECT_EQ(addr.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(addr.sin_port), kPort);
    int reuse = 0;
    len = sizeof reuse;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &len), 0);
    EXPECT_EQ(reuse, 1);
    // For a listening socket ss shows the backlog in the Send-Q column.
    nxatest::ShellResult ss = nxatest::shell("ss -ltnH 'sport = :20100' | awk '{print $1, $3, $4}'");
    EXPECT_EQ(ss.output, "LISTEN 1 0.0.0.0:20100\n");
    EXPECT_EQ(nxatest::shell("nc -z 127.0.0.1 20100").status, 0);
}

TEST_F(ModuleConstruction, StartsWithTheRunLogAsItsOnlyPeer) {
    auto module = make();
    NXAClient::Peers& peers = Access::peers(*module);
    EXPECT_EQ(peers.size(), 1u);
    auto* log = dynamic_cast<NXAClient::PeerLog*>(peers.find("client"));
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(module->getRunLogPeer(), log);
    EXPECT_TRUE(log->getQueue().empty());
    EXPECT_EQ(Access::childpid(*module), -1);
    EXPECT_TRUE(Access::bufConn2Child(*module).empty());
    EXPECT_EQ(module->getName(), "demo");
}

TEST_F(ModuleConstruction, OpensARawTerminalPair) {
    auto module = make();
    int master = Access::master(*module);
    int slave = Access::slave(*module);
    ASSERT_TRUE(isOpen(master));
    ASSERT_TRUE(isOpen(slave));
    EXPECT_EQ(::fcntl(master, F_GETFL) & O_ACCMODE, O_RDWR);
    char name[64];
    ASSERT_EQ(::ptsname_r(master, name, sizeof name), 0);
    EXPECT_TRUE(::isatty(slave));
    termios attrs;
    ASSERT_EQ(::tcgetattr(slave, &attrs), 0);
    EXPECT_EQ(attrs.c_lflag & (ECHO | ICANON | ISIG | IEXTEN), 0u);
    EXPECT_EQ(attrs.c_oflag & OPOST, 0u);
    EXPECT_EQ(attrs.c_iflag & (ICRNL | IXON), 0u);
}

TEST_F(ModuleConstruction, ReachableBusGivesOnlyTheInfoLineAtLevelZero) {
    auto module = make();
    EXPECT_EQ(trace, kEstablished);
    ASSERT_NE(module->getBus(), nullptr);
    EXPECT_TRUE(module->getBus()->isConnected());
}

TEST_F(ModuleConstruction, TracesItsNameAtLevelOne) {
    NXAClient::debug = 1;
    auto module = make();
    EXPECT_EQ(trace, std::string("[DEBUG] NXAModule::Module() name=demo\n") + kEstablished);
}

TEST_F(ModuleConstruction, TracesAddressAndTerminalAtLevelTwo) {
    NXAClient::debug = 2;
    auto module = make();
    EXPECT_EQ(trace,
              "[DEBUG] NXAModule::Module() name=demo\n"
              "[DEBUG] NXAModule::Module() serveraddr=0.0.0.0:20100\n"
              "[DEBUG] NXAModule::Module() open PTY pair: master=" +
                  std::to_string(Access::master(*module)) +
                  ", slave=" + std::to_string(Access::slave(*module)) + "\n" + kEstablished);
}

TEST_F(ModuleConstruction, BusClientIsNamedAfterTheModule) {
    auto module = make("demo");
    EXPECT_EQ(module->getBus()->name(), "NXAModule_demo");
    auto other = std::make_unique<NXAClient::Module>("sub/dir", kPort + 1, proc);
    EXPECT_EQ(other->getBus()->name(), "NXAModule_sub/dir");
    EXPECT_TRUE(other->getBus()->isConnected());
}

TEST_F(ModuleConstruction, AnnouncesItselfAsRunningToTheBusServer) {
    nxamodtest::BusSubscriber server("VLPBusServer");
    auto module = make();
    ASSERT_TRUE(server.waitFor("vlp-state"));
    EXPECT_NE(server.output().find("vlp-sender:NXAModule_demo vlp-type:setstate vlp-id:"), std::string::npos)
        << server.output();
    EXPECT_NE(server.output().find(" vlp-state:running vlp-value:0 \n"), std::string::npos)
        << server.output();
    EXPECT_EQ(countOf(server.output(), "vlp-state"), 1);
}

TEST_F(ModuleConstruction, PortAlreadyTakenIsReportedAndTolerated) {
    int other = occupyPort(kPort);
    auto module = make();
    EXPECT_EQ(trace, "[ERROR] NXAModule::Module() cannot bind to 0.0.0.0:20100: Address already in use\n" +
                         std::string(kEstablished));
    int fd = Access::serverfd(*module);
    ASSERT_TRUE(isOpen(fd));
    int listening = 1;
    socklen_t len = sizeof listening;
    ASSERT_EQ(::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len), 0);
    EXPECT_EQ(listening, 0);
    FdSet rd, wr;
    module->addFds(rd, wr);
    EXPECT_TRUE(rd.isSet(fd));
    EXPECT_TRUE(isOpen(Access::master(*module)));
    EXPECT_TRUE(module->getBus()->isConnected());
    ::close(other);
}

// The broker comes up once the third WARNING line is out, so the connection
// attempt after the third one-second pause is the first that can succeed.
TEST_F(ModuleConstruction, BrokerThatAppearsAfterTheThirdRetryCostsExactlyThreeWarnings) {
    nxatest::brokerStop();
    nxatest::Capture capture;
    std::atomic<bool> started{false};
    std::thread starter([&] {
        bool third = nxatest::waitUntil([&] { return countOf(capture.text(), kRetrying) >= 3; },
                                        std::chrono::seconds(20));
        if (third) nxatest::brokerStart();
        started = third;
    });
    auto begin = std::chrono::steady_clock::now();
    std::unique_ptr<NXAClient::Module> module;
    EXPECT_NO_THROW(module = std::make_unique<NXAClient::Module>("demo", kPort, proc));
    auto elapsed = std::chrono::steady_clock::now() - begin;
    starter.join();
    std::string out = capture.release();
    EXPECT_TRUE(started);
    EXPECT_EQ(out, std::string(kRetrying) + kRetrying + kRetrying + kEstablished);
    EXPECT_GE(elapsed, std::chrono::seconds(3));
    ASSERT_NE(module, nullptr);
    EXPECT_TRUE(module->getBus()->isConnected());
}

TEST_F(ModuleConstruction, DestructionReleasesEveryDescriptor) {
    int before = nxatest::openDescriptorCount();
    std::vector<int> held;
    {
        NXAClient::Module module("demo", kPort, proc);
        held = {Access::serverfd(module), Access::master(module), Access::slave(module),
                module.getBus()->fd()};
        for (int fd : held) EXPECT_TRUE(isOpen(fd)) << fd;
    }
    for (int fd : held) EXPECT_FALSE(isOpen(fd)) << fd;
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(ModuleConstruction, RunLogIsHandedOutAndEmptied) {
    auto module = make();
    std::string out = "x";
    module->getRunLog(out);
    EXPECT_EQ(out, "x");
    module->handleInput([] {
        SystemMessage sm;
        sm.setText("ab");
        return sm;
    }());
    module->getRunLog(out);
    EXPECT_EQ(out, "xab");
    module->getRunLog(out);
    EXPECT_EQ(out, "xab");
}

TEST_F(ModuleConstruction, RunLogIsGoneOnceClientIsErased) {
    auto module = make();
    SystemMessage sm;
    sm.setText("ab");
    module->handleInput(sm);
    Access::peers(*module).erase("client");
    EXPECT_EQ(module->getRunLogPeer(), nullptr);
    std::string out = "x";
    module->getRunLog(out);
    EXPECT_EQ(out, "x");
    // A bus subscriber that takes the id afterwards is no run log either.
    Access::peers(*module).add(std::string("client"));
    ASSERT_NE(Access::peers(*module).find("client"), nullptr);
    EXPECT_EQ(module->getRunLogPeer(), nullptr);
    module->getRunLog(out);
    EXPECT_EQ(out, "x");
}

}  // namespace
