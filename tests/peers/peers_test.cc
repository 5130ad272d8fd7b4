// The peer set: ownership, ids, id order, add and erase rules, the visits.
#include <fcntl.h>

#include <cerrno>
#include <string>
#include <vector>

#include "capture.h"
#include "module_fixture.h"
#include "shell.h"

namespace {

using peerstest::Connection;

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

class PeersTest : public peerstest::ModuleTest {
protected:
    // A connection whose accepted end sits on descriptor `target` (free before).
    void connectOn(Connection& conn, int target) {
        ASSERT_FALSE(isOpen(target)) << "descriptor " << target << " is in use";
        ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
        ASSERT_EQ(dup2(conn.server, target), target) << strerror(errno);
        close(conn.server);
        conn.server = target;
    }
    static std::string telnetId(int fd) { return "telnet:" + std::to_string(fd); }
};

TEST_F(PeersTest, ConstructorTakesThePeersInListOrderUnderTheirIds) {
    NXAClient::Peers set(module(),
                         {new NXAClient::PeerVLPBus(module(), "viewer"), new NXAClient::PeerLog(module())});
    EXPECT_EQ(set.size(), 2u);
    ASSERT_NE(set.find("viewer"), nullptr);
    ASSERT_NE(set.find("client"), nullptr);
    EXPECT_EQ(set.find("viewer")->getId(), "viewer");
    EXPECT_EQ(&NXATestAccess::module(set), &module());
}

TEST_F(PeersTest, ConstructorKeepsTheFirstOfTwoPeersWithOneId) {
    auto* first = new NXAClient::PeerLog(module());
    auto* second = new NXAClient::PeerLog(module());
    nxatest::Capture out;
    NXAClient::Peers set(module(), {first, second});
    EXPECT_EQ(out.release(), "");
    EXPECT_EQ(set.size(), 1u);
    EXPECT_EQ(set.find("client"), first);  // the second is destroyed (no leak)
}

TEST_F(PeersTest, FindReturnsNullForAnUnknownId) {
    EXPECT_EQ(peers().find("nobody"), nullptr);
    EXPECT_EQ(peers().find(""), nullptr);
}

TEST_F(PeersTest, AddTelnetPeerAdoptsTheDescriptorUnderItsId) {
    NXAClient::debug = 1;
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    nxatest::Capture out;
    peers().add(conn.server);
    EXPECT_EQ(out.release(), "[DEBUG] NXAPeer::add() add peer: fd=" + std::to_string(conn.server) + "\n");
    auto* peer = dynamic_cast<NXAClient::PeerTelnet*>(peers().find(telnetId(conn.server)));
    ASSERT_NE(peer, nullptr);
    EXPECT_EQ(peer->getId(), telnetId(conn.server));
    EXPECT_EQ(NXATestAccess::fd(*peer), conn.server);
    close(conn.client);
}

TEST_F(PeersTest, AddTelnetPeerWritesNoDebugLineAtLevelZero) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    nxatest::Capture out;
    peers().add(conn.server);
    EXPECT_EQ(out.release(), "");
    close(conn.client);
}

TEST_F(PeersTest, DuplicateTelnetAddWarnsAndLeavesTheNewDescriptorOpenAndUntracked) {
    nxatest::Capture out;  // opened first: it holds a descriptor of its own
    int before = nxatest::openDescriptorCount();
    Connection first;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(first));
    int fd = first.server;
    peers().add(fd);
    peers().close();  // the peer keeps its id, without a descriptor
    close(first.client);
    // The next accepted connection gets the same descriptor number.
    Connection second;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(second));
    ASSERT_EQ(second.server, fd);
    peers().add(second.server);
    EXPECT_EQ(out.text(), "[WARNING] NXAPeer::add() cannot add peer " + telnetId(fd) + ": already exists\n");
    peers().erase(telnetId(fd));
    close(second.client);
    // Deliberately leaked by the set: still open, tracked by nobody.
    EXPECT_TRUE(isOpen(fd));
    EXPECT_EQ(nxatest::openDescriptorCount(), before + 1);
    close(fd);
}

TEST_F(PeersTest, SecondAddOfTheSameDescriptorWarnsAndKeepsTheFirstPeer) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    NXAClient::Peer* first = peers().find(telnetId(conn.server));
    nxatest::Capture out;
    peers().add(conn.server);
    EXPECT_EQ(out.release(),
              "[WARNING] NXAPeer::add() cannot add peer " + telnetId(conn.server) + ": already exists\n");
    EXPECT_EQ(peers().find(telnetId(conn.server)), first);
    EXPECT_EQ(peers().size(), 2u);
    EXPECT_TRUE(isOpen(conn.server));
    close(conn.client);
}

TEST_F(PeersTest, AddBusPeerTracesItsId) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    peers().add("viewer");
    EXPECT_EQ(out.release(), "[DEBUG] NXAPeer::add() add peer: id=viewer\n");
    EXPECT_NE(dynamic_cast<NXAClient::PeerVLPBus*>(peers().find("viewer")), nullptr);
}

TEST_F(PeersTest, BusPeerNamedClientIsRefused) {
    NXAClient::Peer* log = runLog();
    nxatest::Capture out;
    peers().add(std::string("client"));
    EXPECT_EQ(out.release(), "[WARNING] NXAPeer::add() cannot add peer client: already exists\n");
    EXPECT_EQ(peers().size(), 1u);
    EXPECT_EQ(peers().find("client"), log);
}

TEST_F(PeersTest, DuplicateBusAddWarnsAndChangesNothing) {
    peers().add("viewer");
    NXAClient::Peer* first = peers().find("viewer");
    push("c1");
    NXAClient::debug = 1;
    nxatest::Capture out;
    peers().add("viewer");
    EXPECT_EQ(out.release(),
              "[DEBUG] NXAPeer::add() add peer: id=viewer\n"
              "[WARNING] NXAPeer::add() cannot add peer viewer: already exists\n");
    EXPECT_EQ(peers().find("viewer"), first);
    EXPECT_EQ(first->getQueue().size(), 1u);
}

TEST_F(PeersTest, EraseOfAnUnknownIdWarnsAndChangesNothing) {
    peers().add("viewer");
    nxatest::Capture out;
    peers().erase("x");
    EXPECT_EQ(out.release(), "[WARNING] NXAPeer::erase() cannot erase peer x: did not exist\n");
    EXPECT_EQ(ids(), (std::vector<std::string>{"client", "viewer"}));
}

TEST_F(PeersTest, EraseTracesTheIdAtLevelOne) {
    peers().add("viewer");
    NXAClient::debug = 1;
    nxatest::Capture out;
    peers().erase("viewer");
    peers().erase("x");
    EXPECT_EQ(out.release(),
              "[DEBUG] NXAPeer::erase() id=viewer\n"
              "[DEBUG] NXAPeer::erase() id=x\n"
              "[WARNING] NXAPeer::erase() cannot erase peer x: did not exist\n");
    EXPECT_EQ(peers().find("viewer"), nullptr);
}

TEST_F(PeersTest, EraseOfATelnetIdClosesThatConnection) {
    int before = nxatest::openDescriptorCount();
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    peers().erase(telnetId(conn.server));
    EXPECT_EQ(peers().find(telnetId(conn.server)), nullptr);
    EXPECT_FALSE(isOpen(conn.server));
    EXPECT_EQ(peerstest::readBytes(conn.client, 1, 5000), "");  // end of stream
    close(conn.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(PeersTest, EraseOfClientRemovesTheRunLog) {
    peers().erase("client");
    EXPECT_EQ(peers().size(), 0u);
    EXPECT_EQ(runLog(), nullptr);
}

TEST_F(PeersTest, VisitsPeersInByteWiseIdOrder) {
    Connection a, b;
    ASSERT_NO_FATAL_FAILURE(connectOn(a, 40));
    ASSERT_NO_FATAL_FAILURE(connectOn(b, 100));
    peers().add("zeta");
    peers().add(a.server);
    peers().add("alpha");
    peers().add(b.server);
    // "telnet:100" sorts before "telnet:40": plain byte order, not numbers.
    EXPECT_EQ(ids(), (std::vector<std::string>{"alpha", "client", "telnet:100", "telnet:40", "zeta"}));
    close(a.client);
    close(b.client);
}

TEST_F(PeersTest, ForwardAppendsInputInIdOrder) {
    Connection a, b;
    ASSERT_NO_FATAL_FAILURE(connectOn(a, 40));
    ASSERT_NO_FATAL_FAILURE(connectOn(b, 100));
    peers().add(a.server);
    peers().add(b.server);
    peerstest::writeAll(a.client, "from 40;");
    peerstest::writeAll(b.client, "from 100;");
    FdSet rd;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        rd = FdSet();
        FdSet wr;
        rd.add(a.server);
        rd.add(b.server);
        return waitFds(rd, wr, 1000) == 2;
    }));
    std::string in = ">";
    peers().forward(rd, in);
    EXPECT_EQ(in, ">from 100;from 40;");
    close(a.client);
    close(b.client);
}

TEST_F(PeersTest, ForwardRemovesAPeerAtEndOfStreamAfterItsOwnTrace) {
    nxatest::Capture out;  // opened first: it holds a descriptor of its own
    int before = nxatest::openDescriptorCount();
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    close(conn.client);
    FdSet rd = peerstest::readable(conn.server);
    std::string in;
    NXAClient::debug = 1;
    peers().forward(rd, in);
    std::string id = telnetId(conn.server);
    EXPECT_EQ(out.text(), "[DEBUG] NXAPeer::forward() EOF on " + id +
                              "\n"
                              "[DEBUG] NXAPeer::forward() erasing peer " +
                              id + "\n");
    EXPECT_EQ(peers().find(id), nullptr);
    EXPECT_EQ(in, "");
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(PeersTest, ForwardVisitsThePeerAfterARemovedOne) {
    Connection gone, next;
    ASSERT_NO_FATAL_FAILURE(connectOn(gone, 100));
    ASSERT_NO_FATAL_FAILURE(connectOn(next, 40));
    peers().add(gone.server);
    peers().add(next.server);
    close(gone.client);
    peerstest::writeAll(next.client, "still here");
    FdSet rd;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        rd = FdSet();
        FdSet wr;
        rd.add(gone.server);
        rd.add(next.server);
        return waitFds(rd, wr, 1000) == 2;
    }));
    std::string in;
    peers().forward(rd, in);
    EXPECT_EQ(in, "still here");
    EXPECT_EQ(ids(), (std::vector<std::string>{"client", "telnet:40"}));
    close(next.client);
}

TEST_F(PeersTest, AForwardExceptionLeavesTheVisitAndKeepsTheFailingPeer) {
    Connection failing, later;
    ASSERT_NO_FATAL_FAILURE(connectOn(failing, 100));
    ASSERT_NO_FATAL_FAILURE(connectOn(later, 40));
    peers().add(failing.server);
    peers().add(later.server);
    peerstest::resetAndClose(failing.client);
    peerstest::writeAll(later.client, "waiting");
    FdSet rd;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        rd = FdSet();
        FdSet wr;
        rd.add(failing.server);
        rd.add(later.server);
        return waitFds(rd, wr, 1000) == 2;
    }));
    std::string in;
    EXPECT_THROW(peers().forward(rd, in), IOException);
    EXPECT_EQ(in, "");  // telnet:40 was not visited
    EXPECT_NE(peers().find("telnet:100"), nullptr);
    peers().forward(rd, in);  // now end of stream on telnet:100, then telnet:40
    EXPECT_EQ(in, "waiting");
    EXPECT_EQ(peers().find("telnet:100"), nullptr);
    close(later.client);
}

TEST_F(PeersTest, PushQueuesTheChunkAtEveryPeer) {
    peers().add("viewer");
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    push("abc");
    for (std::string const& id : ids()) {
        ASSERT_EQ(queueOf(id).size(), 1u) << id;
        EXPECT_EQ(queueOf(id).front().data->bytes, "abc") << id;
        EXPECT_EQ(queueOf(id).front().offset, 0u) << id;
    }
    close(conn.client);
}

TEST_F(PeersTest, PushWithoutPeersKeepsNothing) {
    push("c1");
    std::weak_ptr<NXAClient::bufdata_t> chunk = queueOf("client").front().data;
    peers().erase("client");
    EXPECT_TRUE(chunk.expired());
    push("c2");
    EXPECT_EQ(peers().size(), 0u);
}

TEST_F(PeersTest, AddFdsRegistersEveryTelnetPeer) {
    Connection a, b;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(a));
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(b));
    peers().add(a.server);
    peers().add(b.server);
    FdSet rd, wr;
    peers().addFds(rd, wr);
    EXPECT_TRUE(rd.isSet(a.server));
    EXPECT_TRUE(rd.isSet(b.server));
    EXPECT_EQ(rd.count(), std::max(a.server, b.server) + 1);
    EXPECT_EQ(wr.count(), 0);
    close(a.client);
    close(b.client);
}

TEST_F(PeersTest, WriteLetsEveryPeerWrite) {
    Connection a, b;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(a));
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(b));
    peers().add(a.server);
    peers().add(b.server);
    push("to both");
    FdSet wr;
    wr.add(a.server);
    wr.add(b.server);
    peers().write(wr);
    EXPECT_EQ(peerstest::readBytes(a.client, 7), "to both");
    EXPECT_EQ(peerstest::readBytes(b.client, 7), "to both");
    EXPECT_EQ(queueOf("client").size(), 1u);  // write never drains the run log
    close(a.client);
    close(b.client);
}

TEST_F(PeersTest, CloseClosesEveryPeerAndKeepsThemAll) {
    int before = nxatest::openDescriptorCount();
    Connection a;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(a));
    peers().add(a.server);
    peers().add("viewer");
    peers().close();
    EXPECT_EQ(ids(), (std::vector<std::string>{"client", telnetId(a.server), "viewer"}));
    auto* telnet = dynamic_cast<NXAClient::PeerTelnet*>(peers().find(telnetId(a.server)));
    ASSERT_NE(telnet, nullptr);
    EXPECT_EQ(NXATestAccess::fd(*telnet), -1);
    EXPECT_EQ(peerstest::readBytes(a.client, 1, 5000), "");
    close(a.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(PeersTest, DestructionDestroysEveryPeerAndClosesTheirDescriptors) {
    int before = nxatest::openDescriptorCount();
    Connection a;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(a));
    {
        NXAClient::Peers set(module(), {new NXAClient::PeerLog(module())});
        set.add(a.server);
        set.add("viewer");
        set.push(reinterpret_cast<unsigned char const*>("x"), 1);
    }
    EXPECT_FALSE(isOpen(a.server));
    close(a.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

}  // namespace
