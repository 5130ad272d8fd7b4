// VLPBusClient against the sandbox's real broker and the real command-line
// clients: what goes on the wire, byte for byte, and what comes back.
#include <gtest/gtest.h>

#include <limits>

#include "bus_harness.h"
#include "sandbox.h"

using bustest::awaitMessage;
using bustest::connectedClient;
using bustest::publish;
using bustest::Subscriber;

namespace {

std::unique_ptr<SystemMessage> systemMessage(unsigned char kind, std::string text) {
    auto msg = std::make_unique<SystemMessage>();
    msg->setKind(kind);
    msg->setText(std::move(text));
    return msg;
}

// Sends a system message from `a` to `b`'s name and returns what `b` receives.
std::unique_ptr<MessageBase> roundTrip(VLPBusClient& a, VLPBusClient& b, std::string const& text) {
    a.sendTo(a.name(), b.name(), systemMessage(34, text));
    return awaitMessage(b);
}

void expectSystemFrom(MessageBase const* msg, std::string const& sender, unsigned char kind,
                      std::string const& text) {
    auto const* router = dynamic_cast<RouterMessage const*>(msg);
    ASSERT_NE(router, nullptr) << "no router message";
    EXPECT_EQ(router->sender(), sender);
    auto const* sm = dynamic_cast<SystemMessage const*>(router->message());
    ASSERT_NE(sm, nullptr) << "no system message in " << *router;
    EXPECT_EQ(sm->kind(), kind);
    EXPECT_EQ(sm->text(), text);
}

// Two clients with the given names exchange a message each way.
void expectNamesRoundTrip(std::string const& first, std::string const& second) {
    auto a = connectedClient(first);
    auto b = connectedClient(second);
    ASSERT_TRUE(a->isConnected() && b->isConnected());
    auto there = roundTrip(*a, *b, "there");
    expectSystemFrom(there.get(), first, 34, "there");
    auto back = roundTrip(*b, *a, "back");
    expectSystemFrom(back.get(), second, 34, "back");
}

}  // namespace

TEST(VLPBusClient, SendToPublishesSystemMessageWithUserProperties) {
    NXA_REQUIRE_SANDBOX();
    Subscriber sub("vlpbus/viewer", "%t|%P|%p");
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    auto client = connectedClient("NXAModule_demo");
    client->sendTo("NXAModule_demo", "viewer", systemMessage(34, "hello"));
    EXPECT_EQ(sub.lines(),
              std::vector<std::string>{
                  "vlpbus/viewer|vlp-sender:NXAModule_demo vlp-type:system vlp-id:128 vlp-kind:34|hello"});
}

TEST(VLPBusClient, SendToPublishesSetStateMessageWithStateAndValue) {
    NXA_REQUIRE_SANDBOX();
    Subscriber sub("vlpbus/VLPBusServer", "%t|%P|%p");
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    auto client = connectedClient("NXAModule_demo");
    client->sendTo("NXAModule_demo", "VLPBusServer",
                   std::make_unique<SystemSetStateVlpBusMessage>("running", "", 0));
    EXPECT_EQ(sub.lines(),
              std::vector<std::string>{"vlpbus/VLPBusServer|vlp-sender:NXAModule_demo vlp-type:setstate "
                                       "vlp-id:129 vlp-state:running vlp-value:0|"});
}

TEST(VLPBusClient, NamesOnTheWireArePercentEncoded) {
    NXA_REQUIRE_SANDBOX();
    Subscriber sub("vlpbus/a%2Fb%2B%23", "%t|%P|%p");
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    auto client = connectedClient("me");
    client->sendTo("from \xff", "a/b+#", std::make_unique<SystemSetStateVlpBusMessage>("st ate", "t", 7));
    EXPECT_EQ(sub.lines(),
              std::vector<std::string>{"vlpbus/a%2Fb%2B%23|vlp-sender:from%20%FF vlp-type:setstate "
                                       "vlp-id:129 vlp-state:st%20ate vlp-value:7|t"});
}

TEST(VLPBusClient, MessagePublishedByMosquittoPubComesOutAsRouterMessage) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    ASSERT_EQ(
        publish(
            "-t vlpbus/NXAModule_demo -D publish user-property vlp-sender viewer -D publish user-property "
            "vlp-type system -D publish user-property vlp-kind 4 -m 71-NXAStartOutput"),
        0);
    auto msg = awaitMessage(*client);
    expectSystemFrom(msg.get(), "viewer", 4, "71-NXAStartOutput");
    EXPECT_EQ(dynamic_cast<RouterMessage const&>(*msg).message()->id(), 128u);
    EXPECT_EQ(client->getMessage(), nullptr);
}

TEST(VLPBusClient, SetStatePublishedByMosquittoPubComesOutWhole) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("VLPBusServer");
    ASSERT_EQ(publish("-t vlpbus/VLPBusServer" +
                      bustest::userProperties({{"vlp-sender", "NXAModule_demo"},
                                               {"vlp-type", "setstate"},
                                               {"vlp-id", "5"},
                                               {"vlp-state", "running"},
                                               {"vlp-value", "12"}}) +
                      " -m note"),
              0);
    auto msg = awaitMessage(*client);
    auto const* router = dynamic_cast<RouterMessage const*>(msg.get());
    ASSERT_NE(router, nullptr);
    EXPECT_EQ(router->sender(), "NXAModule_demo");
    auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(router->message());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->id(), 5u);
    EXPECT_EQ(state->state(), "running");
    EXPECT_EQ(state->value(), 12ul);
    EXPECT_EQ(state->text(), "note");
}

TEST(VLPBusClient, NameWithTopicWildcardsRoundTrips) {
    NXA_REQUIRE_SANDBOX();
    expectNamesRoundTrip("a/b+#", "x/#/+");
}

TEST(VLPBusClient, NameWithInvalidUtf8RoundTrips) {
    NXA_REQUIRE_SANDBOX();
    expectNamesRoundTrip("bad\xff\xfe", std::string("nul\0\xc3(", 6));
}

TEST(VLPBusClient, EmptyNameRoundTrips) {
    NXA_REQUIRE_SANDBOX();
    expectNamesRoundTrip("", "peer");
}

TEST(VLPBusClient, BinaryTextSurvivesRoundTrip) {
    NXA_REQUIRE_SANDBOX();
    auto a = connectedClient("a");
    auto b = connectedClient("b");
    std::string text("\x00\r\xff\n\x80 end\x00", 10);
    auto msg = roundTrip(*a, *b, text);
    expectSystemFrom(msg.get(), "a", 34, text);
}

TEST(VLPBusClient, BinaryTextIsSentByteForByte) {
    NXA_REQUIRE_SANDBOX();
    Subscriber sub("vlpbus/viewer", "%t|%x");
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    auto client = connectedClient("NXAModule_demo");
    client->sendTo("NXAModule_demo", "viewer", systemMessage(34, std::string("\x00\r\xff", 3)));
    EXPECT_EQ(sub.lines(), std::vector<std::string>{"vlpbus/viewer|000dff"});
}

TEST(VLPBusClient, SetStateRoundTripsBetweenClients) {
    NXA_REQUIRE_SANDBOX();
    auto a = connectedClient("a");
    auto b = connectedClient("b");
    unsigned long const most = std::numeric_limits<unsigned long>::max();
    a->sendTo("a", "b",
              std::make_unique<SystemSetStateVlpBusMessage>("stopping", std::string("\0x", 2), most, 42));
    auto msg = awaitMessage(*b);
    auto const* router = dynamic_cast<RouterMessage const*>(msg.get());
    ASSERT_NE(router, nullptr);
    auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(router->message());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->id(), 42u);
    EXPECT_EQ(state->state(), "stopping");
    EXPECT_EQ(state->value(), most);
    EXPECT_EQ(state->text(), std::string("\0x", 2));
}

TEST(VLPBusClient, MessagesArriveInTheOrderSent) {
    NXA_REQUIRE_SANDBOX();
    auto a = connectedClient("a");
    auto b = connectedClient("b");
    for (int i = 0; i < 20; ++i) a->sendTo("a", "b", systemMessage(34, std::to_string(i)));
    for (int i = 0; i < 20; ++i) {
        auto msg = awaitMessage(*b);
        expectSystemFrom(msg.get(), "a", 34, std::to_string(i));
    }
}

TEST(VLPBusClient, TypesTheBusCannotCarryAreNotSent) {
    NXA_REQUIRE_SANDBOX();
    auto a = connectedClient("a");
    auto b = connectedClient("b");
    a->sendTo("a", "b", std::make_unique<MessageBase>(1, 0));
    a->sendTo("a", "b", std::make_unique<RouterMessage>("x", systemMessage(4, "inner")));
    a->sendTo("a", "b", nullptr);
    auto msg = roundTrip(*a, *b, "only this");
    expectSystemFrom(msg.get(), "a", 34, "only this");
    EXPECT_EQ(b->getMessage(), nullptr);
}

TEST(VLPBusClient, ReadWithNothingReadyReturnsTrueAndQueuesNothing) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("quiet");
    EXPECT_TRUE(client->read());
    EXPECT_EQ(client->getMessage(), nullptr);
    EXPECT_TRUE(client->isConnected());
}

TEST(VLPBusClient, MessageToAnotherNameIsNotReceived) {
    NXA_REQUIRE_SANDBOX();
    auto a = connectedClient("a");
    auto b = connectedClient("b");
    auto c = connectedClient("c");
    a->sendTo("a", "c", systemMessage(34, "for c"));
    a->sendTo("a", "b", systemMessage(34, "for b"));
    expectSystemFrom(awaitMessage(*b).get(), "a", 34, "for b");
    expectSystemFrom(awaitMessage(*c).get(), "a", 34, "for c");
    EXPECT_EQ(b->getMessage(), nullptr);
}
