// What each consumer's counters say of the output pushed to it: delivered,
// lost to the queue bound, and queued always add up to what was pushed.
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "module_fixture.h"
#include "subscriber.h"

namespace {

using peerstest::Connection;
using peerstest::Subscriber;

constexpr std::size_t kChunk = 512;

class PeerCounters : public peerstest::ModuleTest {
protected:
    NXAClient::Peer const& peer(std::string const& id) { return *peers().find(id); }

    static void expectBalanced(NXAClient::Peer const& peer) {
        NXAClient::Peer::Counters const& c = peer.getCounters();
        EXPECT_EQ(c.delivered + c.lostBytes + peer.queuedBytes(), c.pushed)
            << peer.getId() << ": delivered " << c.delivered << ", lost " << c.lostBytes << ", queued "
            << peer.queuedBytes();
    }
};

TEST_F(PeerCounters, ClientThatNeverReadsLosesChunksAndEverythingAddsUp) {
    Connection conn;
    peerstest::connectLoopback(conn, {4096, 4096});
    peerstest::setNonBlocking(conn.server);  // as acceptClient leaves it
    peers().add(conn.server);
    std::string const id = "telnet:" + std::to_string(conn.server);
    std::string const chunk(kChunk, 'x');
    std::string in;
    for (int i = 0; i < 400; ++i) {
        push(chunk);
        peerstest::cycle(peers(), in, 0);
        expectBalanced(peer(id));
    }
    NXAClient::Peer::Counters const& c = peer(id).getCounters();
    EXPECT_EQ(c.pushed, 400u * kChunk);
    EXPECT_GT(c.delivered, 0u);
    EXPECT_GT(c.lostChunks, 0u);
    EXPECT_GT(c.lostBytes, 0u);
    EXPECT_LE(c.lostBytes, c.lostChunks * kChunk);
    expectBalanced(peer("client"));
    close(conn.client);
}

TEST_F(PeerCounters, APartlyDeliveredBlockThatIsDroppedCountsOnlyItsRest) {
    Connection conn;
    peerstest::connectLoopback(conn, {4096, 4096});
    peerstest::setNonBlocking(conn.server);  // as acceptClient leaves it
    peers().add(conn.server);
    std::string const id = "telnet:" + std::to_string(conn.server);
    std::string in;
    // Push until a write has taken only part of the front block (a chunk
    // bigger than what the connection's buffers hold).
    std::size_t const big = 64 * 1024;
    std::string const chunk(big, 'y');
    auto partlyDelivered = [&] { return !queueOf(id).empty() && queueOf(id).front().offset > 0; };
    for (int i = 0; i < 1000 && !partlyDelivered(); ++i) {
        push(chunk);
        peerstest::cycle(peers(), in, 0);
    }
    ASSERT_TRUE(partlyDelivered()) << "no write was partial";
    unsigned long long const offset = queueOf(id).front().offset;
    unsigned long long const queued = queueOf(id).size();
    unsigned long long const lostBefore = peer(id).getCounters().lostBytes;
    // Every block queued now is pushed out: the front one was partly delivered, the rest not at all.
    for (std::size_t i = 0; i < NXAClient::Peer::queueBound; ++i) push(chunk);
    EXPECT_EQ(peer(id).getCounters().lostBytes - lostBefore, (big - offset) + (queued - 1) * big);
    expectBalanced(peer(id));
    close(conn.client);
}

TEST_F(PeerCounters, SeedFromTheRunLogCountsAsPushed) {
    push("one");
    push("two");
    Connection conn;
    peerstest::connectLoopback(conn);
    peers().add(conn.server);
    std::string const id = "telnet:" + std::to_string(conn.server);
    EXPECT_EQ(peer(id).getCounters().pushed, 6u);
    EXPECT_EQ(peer(id).queuedBytes(), 6u);
    std::string in;
    ASSERT_GT(peerstest::cycle(peers(), in, 5000), 0);
    EXPECT_EQ(peer(id).getCounters().delivered, 3u) << "one block per cycle";
    expectBalanced(peer(id));
    close(conn.client);
}

TEST_F(PeerCounters, RunLogCountsWhatMoveTakesAsDelivered) {
    push("abc");
    push("de");
    std::string out;
    runLog()->move(out);
    EXPECT_EQ(runLog()->getCounters().delivered, 5u);
    EXPECT_EQ(runLog()->getCounters().pushed, 5u);
    expectBalanced(*runLog());
}

TEST_F(PeerCounters, BusSubscriberCountsWhatWasSent) {
    Subscriber sub("viewer");
    peers().add(std::string("viewer"));
    push("hello");
    FdSet rd, wr;
    peers().addFds(rd, wr);
    ASSERT_GT(waitFds(rd, wr, 10000), 0);
    peers().write(wr);
    ASSERT_TRUE(sub.waitFor(1));
    EXPECT_EQ(peer("viewer").getCounters().delivered, 5u);
    expectBalanced(peer("viewer"));
}

}  // namespace
