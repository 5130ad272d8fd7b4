// The telnet peer on real loopback TCP connections.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "capture.h"
#include "module_fixture.h"
#include "shell.h"

namespace {

using peerstest::Connection;

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

std::string allByteValues() {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    return all;
}

class PeerTelnetTest : public peerstest::ModuleTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ModuleTest::SetUp());
        baseline = nxatest::openDescriptorCount();
    }
    // Connects a client and adds its accepted end to the module's peers.
    void addClient(Connection& conn, peerstest::ConnectionOptions const& options = {}) {
        ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn, options));
        peers().add(conn.server);
    }
    NXAClient::PeerTelnet& peerOf(Connection const& conn) {
        auto* peer = dynamic_cast<NXAClient::PeerTelnet*>(peers().find(id(conn)));
        if (!peer) throw std::runtime_error("no telnet peer " + id(conn));
        return *peer;
    }
    static std::string id(Connection const& conn) { return "telnet:" + std::to_string(conn.server); }

    int baseline = 0;
};

TEST_F(PeerTelnetTest, ForwardsAtMost512BytesPerCycle) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string sent(600, 'k');
    peerstest::writeAll(conn.client, sent);
    ASSERT_TRUE(nxatest::waitUntil([&] {
        int pending = 0;
        return ioctl(conn.server, FIONREAD, &pending) == 0 && pending == 600;
    }));
    std::string in;
    EXPECT_FALSE(peerOf(conn).forward(peerstest::readable(conn.server), in));
    EXPECT_EQ(in.size(), 512u);
    EXPECT_FALSE(peerOf(conn).forward(peerstest::readable(conn.server), in));
    EXPECT_EQ(in, sent);
    close(conn.client);
}

TEST_F(PeerTelnetTest, ClientBytesReachTheInputUnchanged) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string sent = std::string("\xff\r\0\r\n\xff\xfb\x01", 8) + allByteValues().substr(0, 200);
    peerstest::writeAll(conn.client, sent);
    std::string in = "x";
    ASSERT_TRUE(nxatest::waitUntil([&] {
        peers().forward(peerstest::readable(conn.server, 100), in);
        return in.size() >= sent.size() + 1;
    }));
    EXPECT_EQ(in, "x" + sent);
    close(conn.client);
}

TEST_F(PeerTelnetTest, OutputBytesReachTheClientUnchanged) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    std::string all = allByteValues();
    push(all.substr(0, 128));
    push(std::string("\0\r\xff", 3));
    push(all.substr(128));
    std::string in;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        peerstest::cycle(peers(), in, 100);
        return peerOf(conn).getQueue().empty();
    }));
    EXPECT_EQ(peerstest::readBytes(conn.client, 259),
              all.substr(0, 128) + std::string("\0\r\xff", 3) + all.substr(128));
    close(conn.client);
}

TEST_F(PeerTelnetTest, RegistersForWritingOnlyWhileOutputIsQueued) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    FdSet rd, wr;
    peerOf(conn).addFds(rd, wr);
    EXPECT_TRUE(rd.isSet(conn.server));
    EXPECT_EQ(rd.count(), conn.server + 1);
    EXPECT_EQ(wr.count(), 0);
    push("x");
    FdSet rd2, wr2;
    peerOf(conn).addFds(rd2, wr2);
    EXPECT_TRUE(rd2.isSet(conn.server));
    EXPECT_TRUE(wr2.isSet(conn.server));
    EXPECT_EQ(wr2.count(), conn.server + 1);
    close(conn.client);
}

TEST_F(PeerTelnetTest, NewConnectionFirstReceivesTheRecentOutput) {
    for (int i = 1; i <= 12; ++i) push("<" + std::to_string(i) + ">");
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("<new>");
    std::string in;
    ASSERT_TRUE(nxatest::waitUntil([&] {
        peerstest::cycle(peers(), in, 100);
        return peerOf(conn).getQueue().empty();
    }));
    std::string expected = "<4><5><6><7><8><9><10><11><12><new>";
    EXPECT_EQ(peerstest::readBytes(conn.client, expected.size()), expected);
    close(conn.client);
}

TEST_F(PeerTelnetTest, WritesOneBlockPerCycle) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("first");
    push("second");
    peerOf(conn).write(peerstest::writable(conn.server));
    EXPECT_EQ(peerOf(conn).getQueue().size(), 1u);
    EXPECT_EQ(peerstest::readBytes(conn.client, 5), "first");
    peerOf(conn).write(peerstest::writable(conn.server));
    EXPECT_TRUE(peerOf(conn).getQueue().empty());
    EXPECT_EQ(peerstest::readBytes(conn.client, 6), "second");
    close(conn.client);
}

// A chunk much larger than the socket buffers (a bus text can be pushed as one
// chunk) on a non-blocking socket: the kernel takes part of it per write.
TEST_F(PeerTelnetTest, ResumesAPartialWriteAtTheOffset) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn, {4096, 4096}));
    ASSERT_NO_FATAL_FAILURE(peerstest::setNonBlocking(conn.server));
    std::string chunk;
    for (int i = 0; chunk.size() < 256 * 1024; ++i) chunk += allByteValues();
    push(chunk);
    NXAClient::PeerTelnet& peer = peerOf(conn);
    auto const* data = peer.getQueue().front().data.get();

    // The client does not read: each write takes what the kernel accepts, until
    // the socket stays full.
    int writes = 0;
    for (FdSet wr; (wr = peerstest::writable(conn.server, 200)).count() > 0 && writes < 1000;) {
        peer.write(wr);
        ++writes;
    }
    EXPECT_GT(writes, 0);
    EXPECT_EQ(peerstest::writable(conn.server, 200).count(), 0);
    ASSERT_EQ(peer.getQueue().size(), 1u);
    unsigned long long first = peer.getQueue().front().offset;
    EXPECT_GT(first, 0u);
    EXPECT_LT(first, chunk.size());
    EXPECT_EQ(peer.getQueue().front().data.get(), data);

    // Now it reads; every cycle resumes where the last write stopped.
    std::string received;
    int stalledWrites = writes;
    unsigned long long offset = first;
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            received += peerstest::readBytes(conn.client, chunk.size() - received.size(), 20);
            FdSet wr = peerstest::writable(conn.server, 20);
            if (wr.count() == 0 || peer.getQueue().empty()) return peer.getQueue().empty();
            peer.write(wr);
            ++writes;
            if (!peer.getQueue().empty()) {
                EXPECT_GT(peer.getQueue().front().offset, offset);
                offset = peer.getQueue().front().offset;
            }
            return peer.getQueue().empty();
        },
        std::chrono::seconds(30)));
    received += peerstest::readBytes(conn.client, chunk.size() - received.size());
    EXPECT_GT(writes, stalledWrites + 1);
    EXPECT_EQ(received.size(), chunk.size());
    EXPECT_TRUE(received == chunk);
    close(conn.client);
}

TEST_F(PeerTelnetTest, ClientThatNeverReadsKeepsTenChunksAndDelaysNobody) {
    Connection stalled, reader;
    ASSERT_NO_FATAL_FAILURE(addClient(stalled, {4096, 4096}));
    ASSERT_NO_FATAL_FAILURE(addClient(reader));
    ASSERT_NO_FATAL_FAILURE(peerstest::setNonBlocking(reader.client));
    std::string expected, received, in;
    for (int i = 0; i < 400; ++i) {
        std::string chunk(512, static_cast<char>('a' + i % 26));
        chunk.replace(0, std::to_string(i).size(), std::to_string(i));
        expected += chunk;
        push(chunk);
        // The reading client's chunk leaves within one cycle.
        peerstest::cycle(peers(), in, 1000);
        ASSERT_TRUE(peerOf(reader).getQueue().empty()) << "chunk " << i;
        char buf[65536];
        ssize_t n;
        while ((n = ::read(reader.client, buf, sizeof buf)) > 0) received.append(buf, n);
    }
    EXPECT_EQ(peerOf(stalled).getQueue().size(), NXAClient::Peer::queueBound);
    EXPECT_EQ(peerOf(stalled).getQueue().back().data->bytes, expected.substr(expected.size() - 512));
    received += peerstest::readBytes(reader.client, expected.size() - received.size());
    EXPECT_TRUE(received == expected);
    EXPECT_EQ(in, "");
    close(stalled.client);
    close(reader.client);
}

TEST_F(PeerTelnetTest, ClientThatSendsAndClosesAtOnceIsReadThenRemoved) {
    nxatest::Capture out;  // opened first: it holds a descriptor of its own
    int before = nxatest::openDescriptorCount();
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    NXAClient::debug = 1;
    peerstest::writeAll(conn.client, "bye");
    close(conn.client);
    std::string in;
    peers().forward(peerstest::readable(conn.server), in);
    EXPECT_EQ(in, "bye");
    EXPECT_EQ(out.text(), "");
    EXPECT_NE(peers().find(id(conn)), nullptr);
    peers().forward(peerstest::readable(conn.server), in);
    EXPECT_EQ(out.text(), "[DEBUG] NXAPeer::forward() EOF on " + id(conn) +
                              "\n[DEBUG] NXAPeer::forward() erasing peer " + id(conn) + "\n");
    EXPECT_EQ(in, "bye");
    EXPECT_EQ(peers().find(id(conn)), nullptr);
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

TEST_F(PeerTelnetTest, EndOfStreamAtLevelZeroEndsThePeerWithoutATrace) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    close(conn.client);
    NXAClient::PeerTelnet& peer = peerOf(conn);
    std::string in;
    nxatest::Capture out;
    EXPECT_TRUE(peer.forward(peerstest::readable(conn.server), in));
    EXPECT_EQ(out.release(), "");
    EXPECT_EQ(NXATestAccess::fd(peer), -1);
    EXPECT_FALSE(isOpen(conn.server));
}

TEST_F(PeerTelnetTest, ResetConnectionFailsTheReadThenEndsAtEndOfStream) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    ASSERT_NO_FATAL_FAILURE(peerstest::resetAndClose(conn.client));
    std::string in;
    FdSet rd = peerstest::readable(conn.server);
    try {
        peers().forward(rd, in);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), ECONNRESET);
        EXPECT_STREQ(e.what(), ("cannot read from " + id(conn) + ": Connection reset by peer").c_str());
    }
    EXPECT_EQ(NXATestAccess::fd(peerOf(conn)), conn.server);  // kept open, peer kept
    EXPECT_TRUE(isOpen(conn.server));
    peers().forward(rd, in);
    EXPECT_EQ(peers().find(id(conn)), nullptr);
    EXPECT_EQ(nxatest::openDescriptorCount(), baseline);
}

// A module has always made its bus client, which makes the process ignore
// SIGPIPE: writes to a reset connection fail with an error instead.
TEST_F(PeerTelnetTest, ResetConnectionFailsTheWriteWithResetThenBrokenPipe) {
    struct sigaction current {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &current), 0);
    EXPECT_EQ(current.sa_handler, SIG_IGN);
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("never delivered");
    ASSERT_NO_FATAL_FAILURE(peerstest::resetAndClose(conn.client));
    // The reset has arrived once the socket reports ready.
    ASSERT_GT(peerstest::readable(conn.server).count(), 0);
    NXAClient::PeerTelnet& peer = peerOf(conn);
    FdSet wr = peerstest::writable(conn.server);
    try {
        peer.write(wr);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), ECONNRESET);
        EXPECT_STREQ(e.what(), ("cannot write to " + id(conn) + ": Connection reset by peer").c_str());
    }
    try {
        peer.write(wr);
        FAIL() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), EPIPE);
        EXPECT_STREQ(e.what(), ("cannot write to " + id(conn) + ": Broken pipe").c_str());
    }
    ASSERT_EQ(peer.getQueue().size(), 1u);  // block and offset as they were
    EXPECT_EQ(peer.getQueue().front().offset, 0u);
    EXPECT_EQ(NXATestAccess::fd(peer), conn.server);
}

// The library installs no SIGPIPE handler of its own: a host that restores the
// default action is ended by the signal when it writes to a reset connection.
TEST_F(PeerTelnetTest, WithSigpipeRestoredAWriteToAResetConnectionEndsTheProcess) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("never delivered");
    ASSERT_NO_FATAL_FAILURE(peerstest::resetAndClose(conn.client));
    FdSet wr = peerstest::writable(conn.server);
    NXAClient::PeerTelnet& peer = peerOf(conn);
    EXPECT_EXIT(
        {
            signal(SIGPIPE, SIG_DFL);
            try {
                peer.write(wr);  // the pending reset is reported first
            } catch (IOException const&) {
            }
            try {
                peer.write(wr);
            } catch (IOException const&) {
            }
            _exit(0);
        },
        ::testing::KilledBySignal(SIGPIPE), "");
}

TEST_F(PeerTelnetTest, CloseTwiceIsHarmless) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    NXAClient::PeerTelnet& peer = peerOf(conn);
    peer.close();
    EXPECT_EQ(NXATestAccess::fd(peer), -1);
    EXPECT_FALSE(isOpen(conn.server));
    int afterClose = nxatest::openDescriptorCount();
    peer.close();
    EXPECT_EQ(nxatest::openDescriptorCount(), afterClose);
    close(conn.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), baseline);
}

TEST_F(PeerTelnetTest, AClosedPeerRegistersNothingAndDoesNoIO) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    push("queued");
    NXAClient::PeerTelnet& peer = peerOf(conn);
    peers().close();
    FdSet rd, wr;
    peer.addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    FdSet all;
    all.add(conn.server);
    std::string in;
    EXPECT_FALSE(peer.forward(all, in));
    peer.write(all);
    EXPECT_EQ(peer.getQueue().size(), 1u);
    for (int i = 0; i < 12; ++i) push("more");
    EXPECT_EQ(peer.getQueue().size(), NXAClient::Peer::queueBound);
    close(conn.client);
}

TEST_F(PeerTelnetTest, IgnoresDescriptorsNotMarkedReady) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(addClient(conn));
    peerstest::writeAll(conn.client, "typed");
    push("queued");
    FdSet none;
    std::string in;
    EXPECT_FALSE(peerOf(conn).forward(none, in));
    peerOf(conn).write(none);
    EXPECT_EQ(in, "");
    EXPECT_EQ(peerOf(conn).getQueue().size(), 1u);
    EXPECT_FALSE(peerOf(conn).forward(peerstest::readable(conn.server), in));
    EXPECT_EQ(in, "typed");
    close(conn.client);
}

TEST_F(PeerTelnetTest, DestructorClosesTheConnection) {
    Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    {
        NXAClient::PeerTelnet peer(module(), "telnet:" + std::to_string(conn.server), conn.server);
        EXPECT_EQ(peer.getId(), id(conn));
    }
    EXPECT_FALSE(isOpen(conn.server));
    close(conn.client);
    EXPECT_EQ(nxatest::openDescriptorCount(), baseline);
}

}  // namespace
