// The bus message types: their fields, copies and one-line printed forms.
#include "vlplatform/messages.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::string printed(MessageBase const& msg) {
    std::ostringstream os;
    os << msg;
    return os.str();
}

std::unique_ptr<SystemMessage> systemMessage(unsigned char kind, std::string text) {
    auto msg = std::make_unique<SystemMessage>();
    msg->setKind(kind);
    msg->setText(std::move(text));
    return msg;
}

}  // namespace

TEST(MessageBase, PrintsTypeIdAndFlags) {
    EXPECT_EQ(printed(MessageBase(7, 3)), "MessageBase id=7 flags=3");
}

TEST(MessageBase, CloneKeepsIdAndFlags) {
    auto copy = MessageBase(7, 3).clone();
    EXPECT_EQ(copy->id(), 7u);
    EXPECT_EQ(copy->flags(), 3u);
    EXPECT_EQ(typeid(*copy), typeid(MessageBase));
}

TEST(SystemMessage, DefaultsToId128KindZeroAndEmptyText) {
    SystemMessage msg;
    EXPECT_EQ(msg.id(), 128u);
    EXPECT_EQ(msg.flags(), 0u);
    EXPECT_EQ(msg.kind(), 0);
    EXPECT_EQ(msg.text(), "");
}

TEST(SystemMessage, PrintsIdKindAndText) {
    EXPECT_EQ(printed(*systemMessage(34, "hello")), "SystemMessage id=128 kind=34 text=\"hello\"");
}

TEST(SystemMessage, PrintEscapesEveryByteOutsidePrintableAscii) {
    std::string text("a\0b\r\n\t\"\\ ~\x7f\x80\xff\x1b", 14);
    EXPECT_EQ(printed(*systemMessage(0, text)),
              "SystemMessage id=128 kind=0 text=\"a\\x00b\\r\\n\\t\\\"\\\\ ~\\x7f\\x80\\xff\\x1b\"");
}

TEST(SystemMessage, PrintShowsAtMostPrintLimitBytesAndTheTotal) {
    std::string text(MessageBase::printLimit, 'a');
    EXPECT_EQ(printed(*systemMessage(1, text + "bc")),
              "SystemMessage id=128 kind=1 text=\"" + text + "\"...(" +
                  std::to_string(MessageBase::printLimit + 2) + " bytes)");
}

TEST(SystemMessage, PrintShowsTextOfExactlyPrintLimitWhole) {
    std::string text(MessageBase::printLimit, 'z');
    EXPECT_EQ(printed(*systemMessage(1, text)), "SystemMessage id=128 kind=1 text=\"" + text + "\"");
}

TEST(SystemMessage, PrintShowsKindAsNumber) {
    EXPECT_EQ(printed(*systemMessage(255, "")), "SystemMessage id=128 kind=255 text=\"\"");
}

TEST(SystemMessage, StripNullCharRemovesEveryNulAndKeepsTheRest) {
    auto msg = systemMessage(34, std::string("\0a\0\0b\r\0", 7));
    msg->stripNullChar();
    EXPECT_EQ(msg->text(), "ab\r");
    EXPECT_EQ(msg->kind(), 34);
    EXPECT_EQ(msg->id(), 128u);
}

TEST(SystemMessage, StripNullCharOnTextOfNulsLeavesItEmpty) {
    auto msg = systemMessage(34, std::string(5, '\0'));
    msg->stripNullChar();
    EXPECT_EQ(msg->text(), "");
}

TEST(SystemMessage, CloneIsAnIndependentSystemMessage) {
    SystemMessage original(200, 5);
    original.setKind(4);
    original.setText("71-NXAStartOutput");
    auto copy = original.clone();
    original.setText("changed");
    auto const* sm = dynamic_cast<SystemMessage const*>(copy.get());
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(sm->id(), 200u);
    EXPECT_EQ(sm->flags(), 5u);
    EXPECT_EQ(sm->kind(), 4);
    EXPECT_EQ(sm->text(), "71-NXAStartOutput");
}

TEST(SystemSetStateVlpBusMessage, HoldsStateTextValueAndDefaultId) {
    SystemSetStateVlpBusMessage msg("running", "x", 42);
    EXPECT_EQ(msg.id(), SystemSetStateVlpBusMessage::defaultId);
    EXPECT_EQ(msg.id(), 129u);
    EXPECT_EQ(msg.state(), "running");
    EXPECT_EQ(msg.text(), "x");
    EXPECT_EQ(msg.value(), 42ul);
}

TEST(SystemSetStateVlpBusMessage, PrintsStateValueAndText) {
    EXPECT_EQ(printed(SystemSetStateVlpBusMessage("running", "", 0)),
              "SystemSetStateVlpBusMessage id=129 state=\"running\" value=0 text=\"\"");
}

TEST(SystemSetStateVlpBusMessage, PrintEscapesStateAndText) {
    EXPECT_EQ(printed(SystemSetStateVlpBusMessage("a\nb", std::string("\0", 1), 18446744073709551615ul, 5)),
              "SystemSetStateVlpBusMessage id=5 state=\"a\\nb\" value=18446744073709551615 text=\"\\x00\"");
}

TEST(SystemSetStateVlpBusMessage, CloneKeepsEveryField) {
    auto copy = SystemSetStateVlpBusMessage("stopping", "t", 9, 77).clone();
    auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(copy.get());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->id(), 77u);
    EXPECT_EQ(state->state(), "stopping");
    EXPECT_EQ(state->text(), "t");
    EXPECT_EQ(state->value(), 9ul);
}

TEST(RouterMessage, HoldsSenderAndPayloadWithIdZero) {
    RouterMessage msg("viewer", systemMessage(4, "71-NXAStartOutput"));
    EXPECT_EQ(msg.id(), 0u);
    EXPECT_EQ(msg.sender(), "viewer");
    auto const* sm = dynamic_cast<SystemMessage const*>(msg.message());
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(sm->text(), "71-NXAStartOutput");
}

TEST(RouterMessage, PrintsSenderAndPayloadInBraces) {
    EXPECT_EQ(printed(RouterMessage("viewer", systemMessage(4, "71-NXAStartOutput"))),
              "RouterMessage id=0 sender=\"viewer\" message={SystemMessage id=128 kind=4 "
              "text=\"71-NXAStartOutput\"}");
}

TEST(RouterMessage, PrintsNoneWithoutPayload) {
    EXPECT_EQ(printed(RouterMessage("", nullptr)), "RouterMessage id=0 sender=\"\" message=none");
}

TEST(RouterMessage, PrintEscapesSender) {
    EXPECT_EQ(printed(RouterMessage("a\xff", nullptr)), "RouterMessage id=0 sender=\"a\\xff\" message=none");
}

TEST(RouterMessage, CloneCopiesThePayloadDeeply) {
    RouterMessage original("viewer", systemMessage(34, "out"));
    auto copy = original.clone();
    auto const* router = dynamic_cast<RouterMessage const*>(copy.get());
    ASSERT_NE(router, nullptr);
    EXPECT_EQ(router->sender(), "viewer");
    ASSERT_NE(router->message(), nullptr);
    EXPECT_NE(router->message(), original.message());
    EXPECT_EQ(printed(*router), printed(original));
}

TEST(RouterMessage, CloneWithoutPayloadHasNone) {
    auto copy = RouterMessage("s", nullptr).clone();
    EXPECT_EQ(dynamic_cast<RouterMessage const&>(*copy).message(), nullptr);
}

TEST(MessageBase, StreamOperatorPrintsTheDynamicType) {
    std::unique_ptr<MessageBase> msg = systemMessage(34, "x");
    EXPECT_EQ(printed(*msg), "SystemMessage id=128 kind=34 text=\"x\"");
}

TEST(VLPBusStatusNames, AreTheFiveStatesInOrder) {
    EXPECT_EQ(VLPBus::statusNames,
              (std::vector<std::string>{"unknown", "starting", "running", "stopping", "stopped"}));
    EXPECT_EQ(VLPBus::statusNames[2], "running");
}
