// What a remote participant may send through the broker, sent by the real
// mosquitto_pub: nothing crashes, leaks or blocks the client; unusable
// messages come out as a RouterMessage without payload; the client keeps working.
#include <gtest/gtest.h>

#include "bus_harness.h"
#include "sandbox.h"
#include "shell.h"

using bustest::awaitMessage;
using bustest::connectedClient;
using bustest::publish;
using bustest::pumpUntil;
using bustest::userProperties;

namespace {

std::string const ourTopic = " -t vlpbus/NXAModule_demo";

RouterMessage const& asRouter(std::unique_ptr<MessageBase> const& msg) {
    static RouterMessage const none("<no message>", nullptr);
    auto const* router = dynamic_cast<RouterMessage const*>(msg.get());
    EXPECT_NE(router, nullptr) << "no router message";
    return router ? *router : none;
}

SystemMessage const* systemPayload(RouterMessage const& router) {
    return dynamic_cast<SystemMessage const*>(router.message());
}

std::string systemFromViewer(std::string const& kind) {
    return userProperties({{"vlp-sender", "viewer"}, {"vlp-type", "system"}, {"vlp-kind", kind}});
}

// A well-formed message from viewer with `text` arrives next: the client still works.
void expectStillWorking(VLPBusClient& client, std::string const& text = "still here") {
    ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -m " + bustest::shellQuote(text)), 0);
    auto msg = awaitMessage(client);
    auto const& router = asRouter(msg);
    ASSERT_NE(systemPayload(router), nullptr) << router;
    EXPECT_EQ(systemPayload(router)->text(), text);
    EXPECT_EQ(client.getMessage(), nullptr);
}

// Publishes `arguments` to our topic and expects a RouterMessage from `sender` without payload.
void expectNoPayload(VLPBusClient& client, std::string const& arguments, std::string const& sender) {
    ASSERT_EQ(publish(ourTopic + arguments), 0);
    auto msg = awaitMessage(client);
    auto const& router = asRouter(msg);
    EXPECT_EQ(router.sender(), sender);
    EXPECT_EQ(router.message(), nullptr) << router;
    expectStillWorking(client);
}

// A file of `size` bytes cycling through all byte values; its path.
std::string patternFile(std::size_t size, std::string const& path) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) content[i] = static_cast<char>(i * 7 + i / 256);
    nxatest::writeFile(path, content);
    return path;
}

}  // namespace

TEST(VLPBusBadInput, MessageWithoutPropertiesHasNoSenderAndNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, " -m 71-NXAStartOutput", "");
}

TEST(VLPBusBadInput, UnknownTypeGivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(
        *client,
        userProperties({{"vlp-sender", "viewer"}, {"vlp-type", "chat"}, {"vlp-kind", "4"}}) + " -m hi",
        "viewer");
}

TEST(VLPBusBadInput, MissingTypeGivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, userProperties({{"vlp-sender", "viewer"}, {"vlp-kind", "4"}}) + " -m hi",
                    "viewer");
}

TEST(VLPBusBadInput, Kind999GivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, systemFromViewer("999") + " -m 71-NXAStartOutput", "viewer");
}

TEST(VLPBusBadInput, KindMinusOneGivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, systemFromViewer("-1") + " -m 71-NXAStartOutput", "viewer");
}

TEST(VLPBusBadInput, KindAbcGivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, systemFromViewer("abc") + " -m 71-NXAStartOutput", "viewer");
}

TEST(VLPBusBadInput, MalformedIdGivesNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client, systemFromViewer("4") + userProperties({{"vlp-id", "4294967296"}}) + " -m x",
                    "viewer");
}

TEST(VLPBusBadInput, MalformedSenderEncodingGivesNoSenderAndNoPayload) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    expectNoPayload(*client,
                    userProperties({{"vlp-sender", "%zz"}, {"vlp-type", "system"}, {"vlp-kind", "4"}}) +
                        " -m 71-NXAStartOutput",
                    "");
}

TEST(VLPBusBadInput, EmptyPayloadGivesEmptyText) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -n"), 0);
    auto msg = awaitMessage(*client);
    auto const& router = asRouter(msg);
    ASSERT_NE(systemPayload(router), nullptr) << router;
    EXPECT_EQ(systemPayload(router)->text(), "");
    EXPECT_EQ(systemPayload(router)->kind(), 34);
    expectStillWorking(*client);
}

TEST(VLPBusBadInput, OneMebibytePayloadIsAcceptedWhole) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    std::string file = patternFile(1024 * 1024, "/tmp/one-mib");
    ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -f " + file), 0);
    auto msg = awaitMessage(*client);
    auto const& router = asRouter(msg);
    ASSERT_NE(systemPayload(router), nullptr);
    EXPECT_TRUE(systemPayload(router)->text() == nxatest::readFile(file)) << "the text differs from the file";
    expectStillWorking(*client);
}

TEST(VLPBusBadInput, PayloadBeyondMaxPacketBytesIsDroppedByTheBroker) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    std::string file = patternFile(VLPBusClient::maxPacketBytes, "/tmp/too-big");
    ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -f " + file), 0);
    ASSERT_EQ(
        publish(ourTopic + systemFromViewer("34") + " -f " + patternFile(2 * 1024 * 1024, "/tmp/two-mib")),
        0);
    // QoS 1 publishing keeps the order: the next message is the first to arrive.
    expectStillWorking(*client, "after the big ones");
    EXPECT_EQ(client->droppedMessages(), 0ul);
}

TEST(VLPBusBadInput, MessagesOnOtherTopicsNeverArrive) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    for (char const* topic :
         {"vlpbus/other", "vlpbus/NXAModule_demo/sub", "vlpbus/NXAModule_dem", "NXAModule_demo"}) {
        ASSERT_EQ(publish(std::string(" -t ") + topic + systemFromViewer("34") + " -m elsewhere"), 0);
    }
    expectStillWorking(*client);
}

TEST(VLPBusBadInput, FloodBeyondTheQueueBoundIsDroppedAndCounted) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    std::size_t const sent = 2 * VLPBusClient::maxQueuedMessages;
    std::string lines;
    for (std::size_t i = 0; i < sent; ++i) lines += std::to_string(i) + "\n";
    nxatest::writeFile("/tmp/flood", lines);
    ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -l < /tmp/flood"), 0);
    // Read without taking messages until every one is either queued or dropped.
    EXPECT_TRUE(pumpUntil(
        *client, [&] { return client->droppedMessages() == sent - VLPBusClient::maxQueuedMessages; }));
    for (std::size_t i = 0; i < VLPBusClient::maxQueuedMessages; ++i) {
        auto msg = client->getMessage();
        ASSERT_NE(msg, nullptr) << "message " << i;
        ASSERT_NE(systemPayload(asRouter(msg)), nullptr);
        EXPECT_EQ(systemPayload(asRouter(msg))->text(), std::to_string(i));
    }
    EXPECT_EQ(client->getMessage(), nullptr);
    expectStillWorking(*client);
}

TEST(VLPBusBadInput, FloodOfBigMessagesIsBoundedInBytes) {
    NXA_REQUIRE_SANDBOX();
    auto client = connectedClient("NXAModule_demo");
    std::string file = patternFile(1024 * 1024, "/tmp/one-mib");
    std::size_t const sent = 10;
    for (std::size_t i = 0; i < sent; ++i)
        ASSERT_EQ(publish(ourTopic + systemFromViewer("34") + " -f " + file), 0);
    // Each takes 1 MiB of text and 40 bytes of properties: 7 fit in maxQueuedBytes.
    std::size_t const fit = VLPBusClient::maxQueuedBytes / (1024 * 1024 + 40);
    ASSERT_EQ(fit, 7u);
    EXPECT_TRUE(pumpUntil(*client, [&] { return client->droppedMessages() == sent - fit; }));
    for (std::size_t i = 0; i < fit; ++i) ASSERT_NE(client->getMessage(), nullptr) << "message " << i;
    EXPECT_EQ(client->getMessage(), nullptr);
    expectStillWorking(*client);
}
