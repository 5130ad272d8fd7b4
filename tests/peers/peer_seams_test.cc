// Peer paths that real sockets and a real broker cannot be made to take on
// demand: a write that returns 0, a write cut at an exact length, a write
// error in the middle of a chunk, and a bus send that fails. This binary
// replaces write() and VLPBusClient::sendTo() for the library.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "capture.h"
#include "interpose.h"
#include "module_fixture.h"
#include "shell.h"

namespace seam {

// write() on `fd` returns what `next` says, once per entry, then behaves.
struct WriteStep {
    ssize_t limit;  // >0: write at most this many bytes; 0: return 0; -1: fail with err
    int err;
};
int fd = -1;
std::vector<WriteStep> steps;

// What sendTo was given, instead of sending it.
struct Sent {
    std::string from, to;
    std::unique_ptr<MessageBase> msg;
};
std::vector<Sent> sent;
bool failSend = false;

}  // namespace seam

extern "C" ssize_t write(int fd, void const* buf, size_t count) {
    using Fn = ssize_t (*)(int, void const*, size_t);
    static Fn real = nxatest::nextDefinition<Fn>("write");
    if (fd != seam::fd || seam::steps.empty()) return real(fd, buf, count);
    seam::WriteStep step = seam::steps.front();
    seam::steps.erase(seam::steps.begin());
    if (step.limit == 0) return 0;
    if (step.limit < 0) {
        errno = step.err;
        return -1;
    }
    return real(fd, buf, std::min(count, static_cast<size_t>(step.limit)));
}

void VLPBusClient::sendTo(std::string const& from, std::string const& to, std::unique_ptr<MessageBase> msg) {
    if (seam::failSend) throw std::runtime_error("bus send failed");
    seam::sent.push_back({from, to, std::move(msg)});
}

namespace {

using peerstest::Connection;

class PeerSeams : public peerstest::ModuleTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ModuleTest::SetUp());
        seam::sent.clear();  // the module's own state announcement
        seam::failSend = false;
    }
    void TearDown() override {
        seam::fd = -1;
        seam::steps.clear();
        ModuleTest::TearDown();
    }
    void addClient(Connection& conn) {
        ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
        peers().add(conn.server);
        seam::fd = conn.server;
    }
    NXAClient::PeerTelnet& peerOf(Connection const& conn) {
        return dynamic_cast<NXAClient::PeerTelnet&>(*peers().find(id(conn)));
    }
    static std::string id(Connection const& conn) { return "telnet:" + std::to_string(conn.server); }
    static std::string pattern(char first, std::size_t n) {
        std::string s;
        for (std::size_t i = 0; i < n; ++i) s += static_cast<char>(first + i % 23);
        return s;
    }
};

TEST_F(PeerSeams, TelnetWriteOfZeroClosesTheSocketAndRaisesEndOfStream) {
    nxatest::Capture out;  // opened first: it holds a descriptor of its own
    int before = nxatest::openDescriptorCount();
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("lost");
    seam::steps = {{0, 0}};
    NXAClient::PeerTelnet& peer = peerOf(conn);
    try {
        peers().write(peerstest::writable(conn.server));
        FAIL() << "no exception";
    } catch (VLException const& e) {
        EXPECT_STREQ(e.what(), ("EOF on " + id(conn)).c_str());
    }
    EXPECT_EQ(out.text(), "");
    EXPECT_EQ(NXATestAccess::fd(peer), -1);
    EXPECT_EQ(fcntl(conn.server, F_GETFD), -1);
    EXPECT_EQ(peers().find(id(conn)), &peer);  // stays in the set
    EXPECT_EQ(peer.getQueue().size(), 1u);
    // Without a descriptor it registers nothing, reads nothing, and keeps
    // collecting output up to the bound.
    FdSet rd, wr;
    peers().addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    FdSet stale;
    stale.add(conn.server);
    std::string in;
    peers().forward(stale, in);
    EXPECT_EQ(in, "");
    EXPECT_EQ(peers().find(id(conn)), &peer);
    for (int i = 0; i < 12; ++i) push("more");
    EXPECT_EQ(peer.getQueue().size(), NXAClient::Peer::queueBound);
    peers().erase(id(conn));
    close(conn.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(PeerSeams, TelnetWriteOf100Of300BytesResumesAt100) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string chunk = pattern('A', 300);
    push(chunk);
    seam::steps = {{100, 0}};
    NXAClient::PeerTelnet& peer = peerOf(conn);
    peer.write(peerstest::writable(conn.server));
    ASSERT_EQ(peer.getQueue().size(), 1u);
    EXPECT_EQ(peer.getQueue().front().offset, 100u);
    EXPECT_EQ(peerstest::readBytes(conn.client, 100), chunk.substr(0, 100));
    peer.write(peerstest::writable(conn.server));
    EXPECT_TRUE(peer.getQueue().empty());
    EXPECT_EQ(peerstest::readBytes(conn.client, 200), chunk.substr(100));
    close(conn.client);
}

TEST_F(PeerSeams, PartlyDeliveredFrontBlockIsDroppedByTheBound) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string first = pattern('A', 300);
    push(first);
    seam::steps = {{100, 0}};
    NXAClient::PeerTelnet& peer = peerOf(conn);
    peer.write(peerstest::writable(conn.server));
    ASSERT_EQ(peer.getQueue().front().offset, 100u);
    std::string rest;
    for (int i = 2; i <= 11; ++i) {
        std::string chunk = "[" + std::to_string(i) + "]";
        push(chunk);
        rest += chunk;
    }
    ASSERT_EQ(peer.getQueue().size(), 10u);
    EXPECT_EQ(peer.getQueue().front().offset, 0u);
    EXPECT_EQ(peer.getQueue().front().data->bytes, "[2]");
    while (!peer.getQueue().empty()) peer.write(peerstest::writable(conn.server));
    // The client's stream goes on mid-chunk with the next chunk's start.
    EXPECT_EQ(peerstest::readBytes(conn.client, 100 + rest.size()), first.substr(0, 100) + rest);
    close(conn.client);
}

TEST_F(PeerSeams, TelnetWriteErrorKeepsTheBlockAndItsOffset) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string chunk = pattern('a', 300);
    push(chunk);
    seam::steps = {{100, 0}, {-1, EIO}};
    NXAClient::PeerTelnet& peer = peerOf(conn);
    peer.write(peerstest::writable(conn.server));
    try {
        peers().write(peerstest::writable(conn.server));
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), EIO);
        EXPECT_STREQ(e.what(), ("cannot write to " + id(conn) + ": Input/output error").c_str());
    }
    ASSERT_EQ(peer.getQueue().size(), 1u);
    EXPECT_EQ(peer.getQueue().front().offset, 100u);
    EXPECT_EQ(NXATestAccess::fd(peer), conn.server);
    peer.write(peerstest::writable(conn.server));
    EXPECT_EQ(peerstest::readBytes(conn.client, 300), chunk);
    close(conn.client);
}

TEST_F(PeerSeams, BusPeerSendsOneSystemMessageOfKind34PerWrite) {
    peers().add("viewer");
    push(std::string("a\0b\r\xff", 5));
    push("second");
    NXAClient::Peer& viewer = *peers().find("viewer");
    FdSet wr;
    wr.add(NXATestAccess::bus(module())->fd());
    viewer.write(wr);
    ASSERT_EQ(seam::sent.size(), 1u);
    EXPECT_EQ(seam::sent[0].from, "NXAModule_demo");
    EXPECT_EQ(seam::sent[0].to, "viewer");
    auto* sm = dynamic_cast<SystemMessage*>(seam::sent[0].msg.get());
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(sm->id(), 128u);
    EXPECT_EQ(sm->flags(), 0u);
    EXPECT_EQ(sm->kind(), 0x22);
    EXPECT_EQ(sm->text(), std::string("ab\r\xff", 4));
    EXPECT_EQ(viewer.getQueue().size(), 1u);
    viewer.write(wr);
    ASSERT_EQ(seam::sent.size(), 2u);
    EXPECT_EQ(dynamic_cast<SystemMessage&>(*seam::sent[1].msg).text(), "second");
    EXPECT_TRUE(viewer.getQueue().empty());
}

TEST_F(PeerSeams, BusSendFailurePropagatesAndTheChunkIsTriedAgain) {
    peers().add("viewer");
    push("retry me");
    NXAClient::Peer& viewer = *peers().find("viewer");
    FdSet wr;
    wr.add(NXATestAccess::bus(module())->fd());
    seam::failSend = true;
    EXPECT_THROW(peers().write(wr), std::runtime_error);
    EXPECT_EQ(viewer.getQueue().size(), 1u);
    seam::failSend = false;
    peers().write(wr);
    ASSERT_EQ(seam::sent.size(), 1u);
    EXPECT_EQ(dynamic_cast<SystemMessage&>(*seam::sent[0].msg).text(), "retry me");
    EXPECT_TRUE(viewer.getQueue().empty());
}

}  // namespace
