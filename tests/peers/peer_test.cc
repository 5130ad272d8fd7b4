// The peer queue: its bound of 10 blocks, its trace, chunk sharing and the
// seeding of new peers from the run log.
#include <memory>
#include <string>

#include "capture.h"
#include "module_fixture.h"
#include "shell.h"

namespace {

using peerstest::chunkText;
using Queue = std::deque<NXAClient::bufblock_t>;

class PeerQueue : public peerstest::ModuleTest {
protected:
    // Pushes the chunks "c<first>" .. "c<last>".
    void pushNumbered(int first, int last) {
        for (int i = first; i <= last; ++i) push("c" + std::to_string(i));
    }
    // The queue's chunks as "c1 c2 ...".
    static std::string texts(Queue const& queue) {
        std::string out;
        for (auto const& block : queue) out += (out.empty() ? "" : " ") + chunkText(block);
        return out;
    }
};

TEST_F(PeerQueue, KeepsTenChunks) {
    pushNumbered(1, 10);
    EXPECT_EQ(texts(queueOf("client")), "c1 c2 c3 c4 c5 c6 c7 c8 c9 c10");
}

TEST_F(PeerQueue, EleventhChunkDropsTheOldest) {
    pushNumbered(1, 11);
    EXPECT_EQ(texts(queueOf("client")), "c2 c3 c4 c5 c6 c7 c8 c9 c10 c11");
}

TEST_F(PeerQueue, TracesQueueSizeThenPopAtLevelTwo) {
    NXAClient::debug = 2;
    std::string first;
    {
        nxatest::Capture out;
        push("c1");
        first = out.release();
    }
    EXPECT_EQ(first, "[DEBUG] NXAPeer::push() push: queue size=1\n");
    pushNumbered(2, 10);
    nxatest::Capture out;
    push("c11");
    EXPECT_EQ(out.release(),
              "[DEBUG] NXAPeer::push() push: queue size=11\n"
              "[DEBUG] NXAPeer::push() pop element from queue with size=11\n");
}

TEST_F(PeerQueue, WritesNoTraceAtLevelZero) {
    nxatest::Capture out;
    pushNumbered(1, 12);
    EXPECT_EQ(out.release(), "");
}

TEST_F(PeerQueue, WritesNoTraceAtLevelOne) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    pushNumbered(1, 12);
    EXPECT_EQ(out.release(), "");
}

TEST_F(PeerQueue, OneChunkIsSharedByAllQueuesAndFreedWithTheLast) {
    peers().add("viewer");
    peerstest::Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    std::string telnet = "telnet:" + std::to_string(conn.server);
    push("shared chunk of output");

    std::shared_ptr<NXAClient::bufdata_t> local = queueOf("client").back().data;
    EXPECT_EQ(queueOf("viewer").back().data, local);
    EXPECT_EQ(queueOf(telnet).back().data, local);
    EXPECT_EQ(local.use_count(), 4);  // three queues and this test
    std::weak_ptr<NXAClient::bufdata_t> watch = local;
    local.reset();
    EXPECT_EQ(watch.use_count(), 3);

    peers().erase("viewer");
    EXPECT_EQ(watch.use_count(), 2);
    std::string log;
    runLog()->move(log);
    EXPECT_EQ(log, "shared chunk of output");
    EXPECT_EQ(watch.use_count(), 1);
    peers().write(peerstest::writable(conn.server));
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(peerstest::readBytes(conn.client, 22), "shared chunk of output");
    close(conn.client);
}

TEST_F(PeerQueue, NewBusPeerStartsWithTheTenNewestChunks) {
    pushNumbered(1, 15);
    peers().add("viewer");
    Queue const& viewer = queueOf("viewer");
    EXPECT_EQ(texts(viewer), "c6 c7 c8 c9 c10 c11 c12 c13 c14 c15");
    Queue const& log = queueOf("client");
    for (std::size_t i = 0; i < viewer.size(); ++i) {
        EXPECT_EQ(viewer[i].data, log[i].data);  // the same chunks, not copies
        EXPECT_EQ(viewer[i].offset, 0u);
    }
    EXPECT_EQ(log.front().data.use_count(), 2);
}

TEST_F(PeerQueue, NewTelnetPeerStartsWithTheTenNewestChunks) {
    pushNumbered(1, 15);
    peerstest::Connection conn;
    ASSERT_NO_FATAL_FAILURE(peerstest::connectLoopback(conn));
    peers().add(conn.server);
    EXPECT_EQ(texts(queueOf("telnet:" + std::to_string(conn.server))), "c6 c7 c8 c9 c10 c11 c12 c13 c14 c15");
    close(conn.client);
}

TEST_F(PeerQueue, NewPeerAfterMoveStartsWithWhatCameSince) {
    pushNumbered(1, 15);
    std::string log;
    runLog()->move(log);
    pushNumbered(16, 17);
    peers().add("viewer");
    EXPECT_EQ(texts(queueOf("viewer")), "c16 c17");
}

TEST_F(PeerQueue, NewPeersStartEmptyOnceTheRunLogIsErased) {
    pushNumbered(1, 3);
    peers().erase("client");
    EXPECT_EQ(runLog(), nullptr);
    pushNumbered(4, 5);
    peers().add("viewer");
    EXPECT_TRUE(queueOf("viewer").empty());
    push("c6");
    EXPECT_EQ(texts(queueOf("viewer")), "c6");
    std::string out = "x";
    module().getRunLog(out);
    EXPECT_EQ(out, "x");
}

}  // namespace
