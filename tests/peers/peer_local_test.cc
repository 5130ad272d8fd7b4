// The in-process consumer: served like a TCP client, its output taken by the
// host and its typing given through the module, counted, listed and detached
// like a client.
#include <string>

#include "capture.h"
#include "module_fixture.h"

namespace {

using Kind = NXAClient::Module::ConsumerKind;

class PeerLocalTest : public peerstest::ModuleTest {};

TEST_F(PeerLocalTest, StartsWithTheRecentOutputAndGetsEverythingPrintedAfter) {
    push("before\n");
    ASSERT_TRUE(module().attachLocal("browser:1", "127.0.0.1"));
    push("after\n");
    std::string out = "x";
    EXPECT_EQ(module().takeLocalOutput("browser:1", out, 1000), 13u);
    EXPECT_EQ(out, "xbefore\nafter\n");
    EXPECT_EQ(module().takeLocalOutput("browser:1", out, 1000), 0u);
}

TEST_F(PeerLocalTest, TakesAtMostWhatItIsAskedForAndKeepsTheRestInOrder) {
    ASSERT_TRUE(module().attachLocal("browser:1", ""));
    push("abcdef");
    push("gh");
    std::string out;
    EXPECT_EQ(module().takeLocalOutput("browser:1", out, 4), 4u);
    EXPECT_EQ(out, "abcd");
    EXPECT_EQ(module().takeLocalOutput("browser:1", out, 100), 4u);
    EXPECT_EQ(out, "abcdefgh");
}

TEST_F(PeerLocalTest, IsCountedBoundedAndListedLikeAClient) {
    ASSERT_TRUE(module().attachLocal("browser:7", "10.0.0.2"));
    for (int i = 0; i < 12; ++i) push("0123456789");
    std::string out;
    module().takeLocalOutput("browser:7", out, 15);
    std::vector<NXAClient::Module::Consumer> const consumers = module().getConsumers();
    ASSERT_EQ(consumers.size(), 2u);
    NXAClient::Module::Consumer const& local = consumers[0];
    EXPECT_EQ(local.id, "browser:7");
    EXPECT_EQ(local.kind, Kind::local);
    EXPECT_STREQ(NXAClient::Module::kindName(local.kind), "local");
    EXPECT_EQ(local.address, "10.0.0.2");
    EXPECT_EQ(local.counters.pushed, 120u);
    EXPECT_EQ(local.counters.lostChunks, 2u) << "the queue keeps the ten newest chunks";
    EXPECT_EQ(local.counters.delivered, 15u);
    EXPECT_EQ(local.counters.pushed, local.counters.delivered + local.counters.lostBytes + local.queuedBytes);
}

TEST_F(PeerLocalTest, WhatItTypesGoesToTheProgramAfterWhatWaits) {
    ASSERT_TRUE(module().attachLocal("browser:1", ""));
    NXATestAccess::bufConn2Child(module()) = "first ";
    EXPECT_TRUE(module().typeLocalInput("browser:1", "second"));
    EXPECT_EQ(NXATestAccess::bufConn2Child(module()), "first second");
    EXPECT_EQ(module().typedInputWaiting(), 12u);
    EXPECT_FALSE(module().typeLocalInput("client", "x")) << "the run log types nothing";
    EXPECT_FALSE(module().typeLocalInput("browser:2", "x"));
    EXPECT_EQ(module().typedInputWaiting(), 12u);
}

TEST_F(PeerLocalTest, IsDetachedLikeAClientAndItsIdIsItsOwn) {
    ASSERT_TRUE(module().attachLocal("browser:1", ""));
    EXPECT_FALSE(module().attachLocal("browser:1", "")) << "the id is taken";
    EXPECT_FALSE(module().attachLocal("client", "")) << "the run log's id";
    EXPECT_TRUE(module().hasConsumer("browser:1"));
    EXPECT_TRUE(module().detach("browser:1"));
    EXPECT_FALSE(module().hasConsumer("browser:1"));
    std::string out;
    EXPECT_EQ(module().takeLocalOutput("browser:1", out, 10), 0u);
}

}  // namespace
