// VLPBusClient's connection: bounded waits without a broker or with one that
// does not answer, connecting later, losing the broker, and what it holds.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "bus_harness.h"
#include "sandbox.h"
#include "shell.h"
#include "vlplatform/fd_set.h"

using bustest::awaitMessage;
using bustest::connectedClient;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

milliseconds elapsedSince(steady_clock::time_point start) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
}

// Room beyond connectWaitMs for a loaded machine: a client that waits at most
// connectWaitMs stays well inside it, one that waits for the system's connect
// time-out (minutes) or tries again and again does not.
constexpr long kLoadSlackMs = 3000;

// A TCP socket on 127.0.0.1:20010 listening with `backlog`; -1 on failure.
int listenOnBusPort(int backlog) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nxatest::kBusPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, backlog) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A non-blocking connection attempt to 127.0.0.1:20010, left pending or open.
int connectToBusPort() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(nxatest::kBusPort);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    return fd;
}

void expectUnconnected(VLPBusClient& client) {
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.fd(), -1);
    EXPECT_FALSE(client.read());
}

void expectMessageGoesThrough(VLPBusClient& from, VLPBusClient& to) {
    auto msg = std::make_unique<SystemMessage>();
    msg->setKind(34);
    msg->setText("through");
    from.sendTo(from.name(), to.name(), std::move(msg));
    auto got = awaitMessage(to);
    auto const* router = dynamic_cast<RouterMessage const*>(got.get());
    ASSERT_NE(router, nullptr);
    auto const* sm = dynamic_cast<SystemMessage const*>(router->message());
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(sm->text(), "through");
}

// Waits until the client's socket is readable, as a polling loop would.
bool awaitReadable(VLPBusClient& client) {
    return nxatest::waitUntil([&] {
        FdSet rd, wr;
        rd.add(client.fd());
        return waitFds(rd, wr, 50) > 0 && rd.isSet(client.fd());
    });
}

}  // namespace

TEST(VLPBusConnection, SetupConnectsToRunningBroker) {
    NXA_REQUIRE_SANDBOX();
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.fd(), -1);
    client.setup();
    EXPECT_TRUE(client.isConnected());
    EXPECT_GE(client.fd(), 0);
    EXPECT_EQ(client.name(), "NXAModule_demo");
}

TEST(VLPBusConnection, ExplicitHostIsUsed) {
    NXA_REQUIRE_SANDBOX();
    VLPBusClient client("127.0.0.1", nxatest::kBusPort, "x");
    client.setup();
    EXPECT_TRUE(client.isConnected());
    VLPBusClient elsewhere("127.0.0.1", nxatest::kBusPort + 1, "y");
    elsewhere.setup();
    expectUnconnected(elsewhere);
}

TEST(VLPBusConnection, WithoutBrokerSetupReturnsAtOnceUnconnected) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    auto start = steady_clock::now();
    client.setup();
    EXPECT_LT(elapsedSince(start).count(), VLPBusClient::connectWaitMs + kLoadSlackMs);
    expectUnconnected(client);
    client.sendTo("NXAModule_demo", "viewer", std::make_unique<SystemMessage>());
    EXPECT_EQ(client.getMessage(), nullptr);
}

TEST(VLPBusConnection, ConnectToServerConnectsOnceTheBrokerHasStarted) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    client.setup();
    client.connectToServer();
    expectUnconnected(client);
    nxatest::brokerStart();
    client.connectToServer();
    EXPECT_TRUE(client.isConnected());
    EXPECT_GE(client.fd(), 0);
    auto peer = connectedClient("peer");
    expectMessageGoesThrough(*peer, client);
}

TEST(VLPBusConnection, BrokerThatNeverAcceptsCostsConnectWaitAtMost) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    int listener = listenOnBusPort(0);
    ASSERT_GE(listener, 0);
    // With its backlog full the listener drops further SYNs: the connect hangs.
    int queued[3];
    for (int& fd : queued) fd = connectToBusPort();
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    auto start = steady_clock::now();
    client.setup();
    auto took = elapsedSince(start).count();
    EXPECT_GE(took, VLPBusClient::connectWaitMs - 10);
    EXPECT_LT(took, VLPBusClient::connectWaitMs + kLoadSlackMs);
    expectUnconnected(client);
    for (int fd : queued) close(fd);
    close(listener);
}

TEST(VLPBusConnection, BrokerThatNeverAnswersCostsConnectWaitAtMost) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    int listener = listenOnBusPort(4);
    ASSERT_GE(listener, 0);
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    auto start = steady_clock::now();
    client.connectToServer();
    auto took = elapsedSince(start).count();
    EXPECT_GE(took, VLPBusClient::connectWaitMs - 10);
    EXPECT_LT(took, VLPBusClient::connectWaitMs + kLoadSlackMs);
    expectUnconnected(client);
    close(listener);
}

TEST(VLPBusConnection, ReadReturnsFalseOnceTheBrokerIsKilled) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    nxatest::brokerKill();
    ASSERT_TRUE(awaitReadable(*client));
    EXPECT_FALSE(client->read());
    expectUnconnected(*client);
}

TEST(VLPBusConnection, ReconnectsAfterTheBrokerIsBack) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    nxatest::brokerKill();
    ASSERT_TRUE(awaitReadable(*client));
    EXPECT_FALSE(client->read());
    nxatest::brokerStart();
    client->connectToServer();
    ASSERT_TRUE(client->isConnected());
    auto peer = connectedClient("peer");
    expectMessageGoesThrough(*peer, *client);
}

TEST(VLPBusConnection, SendToAfterTheBrokerIsKilledLeavesTheClientUnconnected) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    nxatest::brokerKill();
    // The first write may still be taken by the kernel; the reset then shows.
    bool lost = nxatest::waitUntil([&] {
        client->sendTo("NXAModule_demo", "viewer", std::make_unique<SystemMessage>());
        return !client->isConnected();
    });
    EXPECT_TRUE(lost);
    expectUnconnected(*client);
}

TEST(VLPBusConnection, DisconnectFromServerLeavesTheClientReadyToConnectAgain) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    client->disconnectFromServer();
    expectUnconnected(*client);
    client->disconnectFromServer();
    client->connectToServer();
    ASSERT_TRUE(client->isConnected());
    auto peer = connectedClient("peer");
    expectMessageGoesThrough(*peer, *client);
}

TEST(VLPBusConnection, SetupWhenConnectedKeepsTheConnection) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    int fd = client->fd();
    client->setup();
    client->connectToServer();
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(client->fd(), fd);
}

TEST(VLPBusConnection, SetupMakesTheProcessIgnoreSigpipe) {
    NXA_REQUIRE_SANDBOX();
    signal(SIGPIPE, SIG_DFL);
    auto client = connectedClient("NXAModule_demo");
    struct sigaction current {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &current), 0);
    EXPECT_EQ(current.sa_handler, SIG_IGN);
}

TEST(VLPBusConnection, ClientClosesEveryDescriptorItOpened) {
    NXA_REQUIRE_SANDBOX();
    {
        // libmosquitto's process-wide state is made once; make it before counting.
        VLPBusClient warmUp("", nxatest::kBusPort, "warm-up");
        warmUp.setup();
    }
    int before = nxatest::openDescriptorCount();
    {
        VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
        client.setup();
        ASSERT_TRUE(client.isConnected());
        client.disconnectFromServer();
        client.connectToServer();
        ASSERT_TRUE(client.isConnected());
    }
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST(VLPBusConnection, FailedAttemptsCloseEveryDescriptor) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    VLPBusClient client("", nxatest::kBusPort, "NXAModule_demo");
    client.setup();
    int before = nxatest::openDescriptorCount();
    for (int i = 0; i < 10; ++i) client.connectToServer();
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
    expectUnconnected(client);
}

TEST(VLPBusConnection, SecondClientWithTheSameNameTakesTheConnectionOver) {
    NXA_REQUIRE_SANDBOX();
    auto first = connectedClient("twin");
    auto second = connectedClient("twin");
    ASSERT_TRUE(awaitReadable(*first));
    EXPECT_FALSE(first->read());
    EXPECT_TRUE(second->isConnected());
    auto peer = connectedClient("peer");
    expectMessageGoesThrough(*peer, *second);
}
