// The run-log peer: it keeps the latest output until the host takes it.
#include <string>

#include "capture.h"
#include "module_fixture.h"

namespace {

class PeerLogTest : public peerstest::ModuleTest {};

TEST_F(PeerLogTest, HasTheIdClientAndIsTheModulesRunLog) {
    ASSERT_NE(runLog(), nullptr);
    EXPECT_EQ(runLog()->getId(), "client");
    EXPECT_EQ(peers().find("client"), runLog());
    EXPECT_EQ(peers().size(), 1u);
    EXPECT_TRUE(runLog()->getQueue().empty());
}

TEST_F(PeerLogTest, MoveOnAnEmptyLogLeavesOutUnchanged) {
    std::string out = "x";
    runLog()->move(out);
    EXPECT_EQ(out, "x");
}

TEST_F(PeerLogTest, MoveAppendsOldestFirstAndEmptiesTheLog) {
    push("ab");
    push("cd");
    std::string out = "x";
    runLog()->move(out);
    EXPECT_EQ(out, "xabcd");
    EXPECT_TRUE(runLog()->getQueue().empty());
    runLog()->move(out);
    EXPECT_EQ(out, "xabcd");
}

TEST_F(PeerLogTest, MoveHandsOutOnlyTheLastTenChunks) {
    std::string expected;
    for (int i = 1; i <= 15; ++i) {
        std::string chunk = "<" + std::to_string(i) + ">";
        push(chunk);
        if (i > 5) expected += chunk;
    }
    std::string out;
    runLog()->move(out);
    EXPECT_EQ(out, expected);
}

TEST_F(PeerLogTest, MoveKeepsEveryByteValue) {
    std::string all;
    for (int b = 0; b < 256; ++b) all += static_cast<char>(b);
    push(all);
    push(std::string("\0\r\xff", 3));
    std::string out;
    runLog()->move(out);
    EXPECT_EQ(out, all + std::string("\0\r\xff", 3));
}

TEST_F(PeerLogTest, ModuleGetRunLogHandsOutTheLog) {
    push("ab");
    push("cd");
    std::string out = "x";
    module().getRunLog(out);
    EXPECT_EQ(out, "xabcd");
    EXPECT_TRUE(runLog()->getQueue().empty());
}

TEST_F(PeerLogTest, RegistersReadsAndWritesNothing) {
    push("ab");
    NXAClient::PeerLog& log = *runLog();
    FdSet rd, wr;
    log.addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    std::string in = "y";
    EXPECT_FALSE(log.forward(rd, in));
    EXPECT_EQ(in, "y");
    log.write(wr);
    log.close();
    log.close();
    EXPECT_EQ(log.getQueue().size(), 1u);
}

TEST_F(PeerLogTest, IsKeptTrimmedToTenChunksWithoutAnyMove) {
    for (int i = 0; i < 1000; ++i) push(std::string(512, 'o'));
    EXPECT_EQ(runLog()->getQueue().size(), NXAClient::Peer::queueBound);
}

}  // namespace
