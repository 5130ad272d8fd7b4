// The bus peer, sending through the module's own bus client and the sandbox's
// broker to a real subscriber (mosquitto_sub).
#include <set>
#include <string>

#include "capture.h"
#include "module_fixture.h"
#include "sandbox.h"
#include "shell.h"
#include "subscriber.h"

namespace {

using peerstest::Subscriber;

// What every output message carries besides its text.
std::set<std::string> const kOutputProperties = {"vlp-sender:NXAModule_demo", "vlp-type:system", "vlp-id:128",
                                                 "vlp-kind:34"};

class PeerVLPBusTest : public peerstest::ModuleTest {
protected:
    NXAClient::PeerVLPBus& viewer() {
        auto* peer = dynamic_cast<NXAClient::PeerVLPBus*>(peers().find("viewer"));
        if (!peer) throw std::runtime_error("no bus peer viewer");
        return *peer;
    }
    VLPBusClient& bus() { return *NXATestAccess::bus(module()); }
    // One polling cycle limited to the bus peer's write.
    void writeCycle() {
        FdSet rd, wr;
        viewer().addFds(rd, wr);
        ASSERT_GT(waitFds(rd, wr, 10000), 0);
        viewer().write(wr);
    }
    // Sends a message from the module's bus connection to itself and waits for
    // it: the broker handles one client's messages in order, so everything the
    // module sent before has then been routed.
    bool roundTripThroughTheBroker() {
        auto marker = std::make_unique<SystemMessage>();
        marker->setKind(1);
        marker->setText("round trip");
        bus().sendTo(bus().name(), bus().name(), std::move(marker));
        for (int turn = 0; turn < 100; ++turn) {
            FdSet rd, wr;
            rd.add(bus().fd());
            if (waitFds(rd, wr, 100) > 0 && bus().read()) {
                while (std::unique_ptr<MessageBase> msg = bus().getMessage()) {
                    auto const* routed = dynamic_cast<RouterMessage const*>(msg.get());
                    auto const* text =
                        routed ? dynamic_cast<SystemMessage const*>(routed->message()) : nullptr;
                    if (text && text->text() == "round trip") return true;
                }
            }
        }
        return false;
    }
};

TEST_F(PeerVLPBusTest, SendsAChunkAsOneKind34MessageFromTheModule) {
    Subscriber sub("viewer");
    peers().add("viewer");
    push("hello, world\r\n");
    writeCycle();
    ASSERT_TRUE(sub.waitFor(1));
    auto got = sub.messages();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].properties, kOutputProperties);
    EXPECT_EQ(got[0].payload, "hello, world\r\n");
    EXPECT_TRUE(viewer().getQueue().empty());
}

TEST_F(PeerVLPBusTest, StripsNulBytesAndKeepsEveryOtherByte) {
    Subscriber sub("viewer");
    peers().add("viewer");
    std::string chunk("\0a\r\xff\0b\x01\0", 8);
    push(chunk);
    writeCycle();
    ASSERT_TRUE(sub.waitFor(1));
    EXPECT_EQ(sub.messages()[0].payload, std::string("a\r\xff"
                                                     "b\x01",
                                                     5));
    // The chunk itself is not changed: the run log still has the NUL bytes.
    std::string log;
    runLog()->move(log);
    EXPECT_EQ(log, chunk);
}

TEST_F(PeerVLPBusTest, AChunkOfNulBytesOnlyIsSentAsAnEmptyText) {
    Subscriber sub("viewer");
    peers().add("viewer");
    push(std::string("\0\0\0", 3));
    writeCycle();
    ASSERT_TRUE(sub.waitFor(1));
    EXPECT_EQ(sub.messages()[0].payload, "");
    EXPECT_EQ(sub.messages()[0].properties, kOutputProperties);
}

TEST_F(PeerVLPBusTest, NewSubscriberReceivesTheTenNewestChunksOnePerCycle) {
    for (int i = 1; i <= 12; ++i) push("chunk " + std::to_string(i));
    Subscriber sub("viewer");
    peers().add("viewer");
    ASSERT_EQ(viewer().getQueue().size(), 10u);
    for (std::size_t left = 9;; --left) {
        ASSERT_NO_FATAL_FAILURE(writeCycle());
        ASSERT_EQ(viewer().getQueue().size(), left);
        if (left == 0) break;
    }
    ASSERT_TRUE(sub.waitFor(10));
    auto got = sub.messages();
    ASSERT_EQ(got.size(), 10u);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(got[i].payload, "chunk " + std::to_string(i + 3));
}

TEST_F(PeerVLPBusTest, RegistersTheBusDescriptorForWritingOnlyWhileOutputIsQueued) {
    peers().add("viewer");
    int fd = bus().fd();
    ASSERT_GE(fd, 0);
    FdSet rd, wr;
    viewer().addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    push("x");
    viewer().addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);  // reading the bus is the module's business
    EXPECT_TRUE(wr.isSet(fd));
    EXPECT_EQ(wr.count(), fd + 1);
}

TEST_F(PeerVLPBusTest, SendsNothingWhenTheBusDescriptorIsNotMarked) {
    peers().add("viewer");
    push("x");
    FdSet none;
    viewer().write(none);
    EXPECT_EQ(viewer().getQueue().size(), 1u);
}

TEST_F(PeerVLPBusTest, ReadsNothingAndClosesNothing) {
    peers().add("viewer");
    FdSet rd;
    rd.add(bus().fd());
    std::string in = "y";
    EXPECT_FALSE(viewer().forward(rd, in));
    EXPECT_EQ(in, "y");
    int fd = bus().fd();
    viewer().close();
    EXPECT_EQ(bus().fd(), fd);
    EXPECT_TRUE(bus().isConnected());
}

TEST_F(PeerVLPBusTest, WithTheBusDisconnectedRegistersNothingAndKeepsTheNewestTen) {
    peers().add("viewer");
    int fd = bus().fd();
    // Brought back at the end, also on failure, for the cases run after this one.
    struct Restart {
        ~Restart() { nxatest::brokerStart(); }
    } restart;
    nxatest::brokerStop();
    ASSERT_TRUE(nxatest::waitUntil([&] { return !bus().read(); }));
    ASSERT_EQ(bus().fd(), -1);
    for (int i = 1; i <= 15; ++i) push("chunk " + std::to_string(i));
    FdSet rd, wr;
    viewer().addFds(rd, wr);
    EXPECT_EQ(rd.count(), 0);
    EXPECT_EQ(wr.count(), 0);
    FdSet stale;
    stale.add(fd);
    viewer().write(stale);
    ASSERT_EQ(viewer().getQueue().size(), 10u);
    EXPECT_EQ(viewer().getQueue().front().data->bytes, "chunk 6");
    EXPECT_EQ(viewer().getQueue().back().data->bytes, "chunk 15");
}

TEST_F(PeerVLPBusTest, SubscriberThatLeavesWithoutStopKeepsItsPeer) {
    peers().add("viewer");
    {
        Subscriber sub("viewer");
        push("seen");
        writeCycle();
        ASSERT_TRUE(sub.waitFor(1));
        sub.leave();
    }
    for (int i = 0; i < 15; ++i) push("unseen " + std::to_string(i));
    EXPECT_EQ(viewer().getQueue().size(), 10u);
    // It keeps sending while the bus connection is writable, to nobody.
    for (int i = 0; i < 10; ++i) ASSERT_NO_FATAL_FAILURE(writeCycle());
    EXPECT_TRUE(viewer().getQueue().empty());
    EXPECT_NE(peers().find("viewer"), nullptr);
    EXPECT_TRUE(bus().isConnected());
    // Only once the broker has routed the unseen ones (to nobody) may the
    // subscriber come back: it must not receive them.
    ASSERT_TRUE(roundTripThroughTheBroker());
    // A subscriber coming back under the same name gets what follows.
    Subscriber again("viewer");
    push("seen again");
    writeCycle();
    ASSERT_TRUE(again.waitFor(1));
    EXPECT_EQ(again.messages()[0].payload, "seen again");
}

TEST_F(PeerVLPBusTest, SubscriberNamedClientCannotStartOutput) {
    nxatest::Capture out;
    peers().add(std::string("client"));
    EXPECT_EQ(out.release(), "[WARNING] NXAPeer::add() cannot add peer client: already exists\n");
    EXPECT_EQ(dynamic_cast<NXAClient::PeerVLPBus*>(peers().find("client")), nullptr);
}

TEST_F(PeerVLPBusTest, EraseStopsTheOutput) {
    Subscriber sub("viewer");
    peers().add("viewer");
    push("one");
    writeCycle();
    ASSERT_TRUE(sub.waitFor(1));
    peers().erase("viewer");
    push("two");
    FdSet rd, wr;
    peers().addFds(rd, wr);
    EXPECT_EQ(wr.count(), 0);
    EXPECT_EQ(sub.messages().size(), 1u);
}

}  // namespace
