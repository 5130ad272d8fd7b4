// What a host that runs unattended asks of a module: its program started
// again with its clients kept, its state on the bus, its bus connection back
// after the broker returns, its consumers listed and detached, and every
// program of the registry stopped together.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using nxamodtest::Access;
using nxamodtest::writeScript;
using Clock = std::chrono::steady_clock;

constexpr unsigned short kPort = 20100;

// A TCP client of the module's port, reading without blocking.
class Client {
public:
    explicit Client(unsigned short port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    ~Client() { ::close(fd_); }
    bool connected() const { return connected_; }
    // Reads what has arrived; false once the connection is closed by the other side.
    bool take(std::string& into) const {
        char buf[4096];
        ssize_t n = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) into.append(buf, static_cast<std::size_t>(n));
        return n != 0;
    }

private:
    int fd_;
    bool connected_ = false;
};

bool reaped(pid_t pid) {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == -1 &&
           errno == ECHILD;
}

std::string startLine(pid_t pid) {
    return "starting module \"demo\", childpid=" + std::to_string(pid);
}

class ModuleRestart : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }
    void TearDown() override { module.reset(); }

    NXAClient::Module& make() {
        module = std::make_unique<NXAClient::Module>("demo", kPort, proc);
        return *module;
    }
    // Turns until the client has received `text`.
    bool clientReceives(Client const& client, std::string& got, std::string const& text) {
        return nxamodtest::pollUntil(*module, [&] {
            client.take(got);
            return got.find(text) != std::string::npos;
        });
    }

    Proc proc{::getpid()};
    std::unique_ptr<NXAClient::Module> module;
};

TEST_F(ModuleRestart, RestartStartsTheProgramAgainAndItsClientStaysAttached) {
    writeScript("demo", "printf 'hello\\n'; exec sleep 60");
    make();
    Client client(kPort);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));
    nxamodtest::runModule(*module);
    pid_t const first = module->getChildPid();
    std::string got;
    ASSERT_TRUE(clientReceives(client, got, startLine(first) + "\nhello\n")) << got;

    nxamodtest::restartModule(*module);
    pid_t const second = module->getChildPid();
    EXPECT_NE(second, first);
    EXPECT_TRUE(reaped(first)) << "the old program is stopped and reaped";
    EXPECT_TRUE(clientReceives(client, got, startLine(second) + "\nhello\n")) << got;
    EXPECT_EQ(Access::peers(*module).size(), 2u);
}

TEST_F(ModuleRestart, RestartOfAnEndedProgramReapsItAndStartsANewOne) {
    writeScript("demo", "printf 'once\\n'; exit 3");
    make();
    nxamodtest::runModule(*module);
    pid_t const first = module->getChildPid();
    nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(first);
    ASSERT_TRUE(end.ended);
    EXPECT_EQ(end.status, 3);
    nxamodtest::restartModule(*module);
    EXPECT_TRUE(reaped(first));
    EXPECT_NE(module->getChildPid(), first);
    std::string log;
    EXPECT_TRUE(nxamodtest::pollForRunLog(*module, log, startLine(module->getChildPid()))) << log;
}

TEST_F(ModuleRestart, InputTypedForTheOldProgramIsNotGivenToTheNewOne) {
    writeScript("demo", "exec cat");
    make();
    nxamodtest::runModule(*module);
    Access::bufConn2Child(*module) = "left over\n";
    nxamodtest::restartModule(*module);
    EXPECT_TRUE(Access::bufConn2Child(*module).empty());
}

TEST_F(ModuleRestart, EndingAProgramThatIgnoresSigtermNeverWaitsAndKillingItLetsItBeReaped) {
    writeScript("demo", "trap 'printf \"not yet\\n\"' TERM; printf 'deaf\\n'; while :; do sleep 1; done");
    make();
    Client client(kPort);
    ASSERT_TRUE(client.connected());
    nxamodtest::runModule(*module);
    pid_t const first = module->getChildPid();
    std::string got;
    ASSERT_TRUE(clientReceives(client, got, "deaf\n")) << got;

    auto const start = Clock::now();
    module->endProgram();
    EXPECT_FALSE(module->reapProgram());
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(Proc::stopGraceMs / 2)) << "nothing may wait";
    EXPECT_EQ(module->getChildPid(), first) << "the child stays the module's until it is reaped";
    // The terminal is still served: what the program prints while it ends arrives.
    EXPECT_TRUE(clientReceives(client, got, "not yet\n")) << got;
    EXPECT_THROW(module->startProgram(), std::logic_error);

    module->killProgram();
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return module->reapProgram(); }));
    EXPECT_EQ(module->getChildPid(), -1);
    EXPECT_TRUE(reaped(first));
    nxamodtest::startProgram(*module);
    pid_t const second = module->getChildPid();
    EXPECT_GT(second, 0);
    EXPECT_NE(second, first);
    EXPECT_TRUE(clientReceives(client, got, startLine(second) + "\ndeaf\n")) << got;
    EXPECT_EQ(Access::peers(*module).size(), 2u) << "the client stays attached";
}

TEST_F(ModuleRestart, AProgramThatObeysSigtermIsReapedWithoutAKill) {
    writeScript("demo", "exec sleep 60");
    make();
    nxamodtest::runModule(*module);
    pid_t const first = module->getChildPid();
    module->endProgram();
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return module->reapProgram(); }));
    EXPECT_TRUE(reaped(first));
    EXPECT_TRUE(module->reapProgram()) << "nothing left to reap";
    module->endProgram();  // no child: nothing happens
    module->killProgram();
}

TEST_F(ModuleRestart, StartingTheProgramAgainDropsInputTypedForTheOldOne) {
    writeScript("demo", "exit 0");
    make();
    nxamodtest::runModule(*module);
    ASSERT_TRUE(nxamodtest::waitChildEnd(module->getChildPid()).ended);
    ASSERT_TRUE(module->reapProgram());
    Access::bufConn2Child(*module) = "left over\n";
    nxamodtest::startProgram(*module);
    EXPECT_TRUE(Access::bufConn2Child(*module).empty());
}

TEST_F(ModuleRestart, DroppingTypedInputEmptiesTheBufferAndReturnsItsMemory) {
    make();
    Access::bufConn2Child(*module).assign(4 << 20, 'x');
    EXPECT_EQ(module->dropTypedInput(), std::size_t{4} << 20);
    EXPECT_TRUE(Access::bufConn2Child(*module).empty());
    EXPECT_LT(Access::bufConn2Child(*module).capacity(), 64u);
    EXPECT_EQ(module->dropTypedInput(), 0u);
}

TEST_F(ModuleRestart, RestartAndAnnounceTellTheBusServerTheState) {
    writeScript("demo", "exec sleep 60");
    make();
    nxamodtest::BusSubscriber server("VLPBusServer");
    nxamodtest::runModule(*module);
    module->announce("stopped");
    EXPECT_TRUE(server.waitFor("vlp-state:stopped")) << server.output();
    nxamodtest::restartModule(*module);
    EXPECT_TRUE(server.waitFor("vlp-state:running")) << server.output();
}

TEST_F(ModuleRestart, BusConnectionComesBackWithItsSubscribersAfterTheBrokerReturns) {
    make();
    nxamodtest::BusSubscriber viewerBefore("viewer");
    Access::peers(*module).add(std::string("viewer"));
    nxatest::brokerStop();
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return !module->busConnected(); }));
    EXPECT_FALSE(module->reconnectBus());
    nxatest::brokerStart();
    ASSERT_TRUE(nxatest::waitUntil([&] { return module->reconnectBus(); }));
    EXPECT_TRUE(module->busConnected());
    // The subscriber kept its peer: it receives what follows.
    nxamodtest::BusSubscriber viewer("viewer");
    SystemMessage text;
    text.setText("after the outage");
    module->handleInput(text);
    EXPECT_TRUE(nxamodtest::pollUntil(*module, [&] {
        return viewer.output().find("after the outage") != std::string::npos;
    })) << viewer.output();
}

TEST_F(ModuleRestart, ConsumersAreListedWithTheirKindAndAddress) {
    make();
    Client client(kPort);
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));
    Access::peers(*module).add(std::string("viewer"));
    std::vector<NXAClient::Module::Consumer> const consumers = module->getConsumers();
    ASSERT_EQ(consumers.size(), 3u);
    EXPECT_EQ(consumers[0].id, "client");
    EXPECT_EQ(consumers[0].kind, NXAClient::Module::ConsumerKind::log);
    EXPECT_EQ(consumers[1].kind, NXAClient::Module::ConsumerKind::tcp);
    EXPECT_EQ(consumers[1].address.rfind("127.0.0.1:", 0), 0u) << consumers[1].address;
    EXPECT_EQ(consumers[2].id, "viewer");
    EXPECT_EQ(consumers[2].kind, NXAClient::Module::ConsumerKind::bus);
    EXPECT_EQ(consumers[2].address, "");
}

TEST_F(ModuleRestart, AClosedClientShowsNoAddressEvenWhenItsNumberServesAnotherSocket) {
    make();
    Client client(kPort);
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));
    int const number = std::stoi(module->getConsumers()[1].id.substr(std::string("telnet:").size()));
    Access::peers(*module).close();
    // Another connection is given the number the closed client had.
    int const other = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(other, number) << "the next socket takes the lowest free number";
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(kPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(other, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(module->getConsumers()[1].address, "");
    ::close(other);
}

TEST_F(ModuleRestart, DetachClosesATcpClientAndRefusesTheRunLogAndUnknownIds) {
    make();
    Client client(kPort);
    ASSERT_TRUE(nxamodtest::pollUntil(*module, [&] { return Access::peers(*module).size() == 2; }));
    std::string const id = module->getConsumers()[1].id;
    EXPECT_FALSE(module->detach("client"));
    EXPECT_FALSE(module->detach("telnet:99999"));
    EXPECT_TRUE(module->detach(id));
    EXPECT_EQ(Access::peers(*module).size(), 1u);
    std::string got;
    EXPECT_TRUE(nxatest::waitUntil([&] { return !client.take(got); })) << "the connection was closed";
}

TEST(ModulesRestart, StopProgramsEndsEveryProgramInOneGraceTime) {
    NXA_REQUIRE_SANDBOX();
    NXAClient::Modules modules(kPort, 4);
    std::vector<std::string> names{"deaf0", "deaf1", "deaf2", "deaf3"};
    for (std::string const& name : names)
        writeScript(name, "trap '' TERM; printf 'deaf\\n'; while :; do sleep 1; done");
    modules.configure(names);
    std::vector<pid_t> pids;
    for (NXAClient::Module* module : modules.getModules()) {
        nxamodtest::runModule(*module);
        pids.push_back(module->getChildPid());
        std::string log;
        ASSERT_TRUE(nxamodtest::pollForRunLog(*module, log, "deaf\n")) << log;
    }
    auto const start = Clock::now();
    modules.stopPrograms();
    auto const elapsed = Clock::now() - start;
    // One after another, the four would take four grace times at least.
    EXPECT_LT(elapsed, std::chrono::milliseconds(4 * Proc::stopGraceMs)) << "one grace time each";
    for (pid_t pid : pids) EXPECT_TRUE(reaped(pid));
    EXPECT_NE(modules.find("deaf2"), nullptr);
    EXPECT_EQ(modules.find("nobody"), nullptr);
    auto const stopStart = Clock::now();
    modules.stop();
    EXPECT_LT(Clock::now() - stopStart, std::chrono::milliseconds(Proc::stopGraceMs))
        << "nothing left to wait for";
}

}  // namespace
