// The bus's wire form without a broker: percent-encoded names and the
// conversion between messages and MQTT payload plus user properties.
#include "bus_wire.h"

#include <gtest/gtest.h>

#include <limits>

#include "bus_names.h"

using VLPBus::decodeName;
using VLPBus::encodeName;
using VLPBus::fromWire;
using VLPBus::Properties;
using VLPBus::toWire;

namespace {

SystemMessage const* systemPayload(RouterMessage const& router) {
    return dynamic_cast<SystemMessage const*>(router.message());
}

Properties systemProperties(std::string const& kind) {
    return {{"vlp-sender", "viewer"}, {"vlp-type", "system"}, {"vlp-kind", kind}};
}

}  // namespace

TEST(BusNames, UnreservedBytesStayAsTheyAre) {
    EXPECT_EQ(encodeName("NXAModule_demo"), "NXAModule_demo");
    EXPECT_EQ(encodeName("AZaz09._~-"), "AZaz09._~-");
}

TEST(BusNames, OtherBytesBecomePercentAndUpperCaseHex) {
    EXPECT_EQ(encodeName("a/b+#"), "a%2Fb%2B%23");
    EXPECT_EQ(encodeName(std::string("\xff\x00 %", 4)), "%FF%00%20%25");
    EXPECT_EQ(encodeName(""), "");
}

TEST(BusNames, DecodeReversesEncodeForEveryByte) {
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(decodeName(encodeName(all)), all);
}

TEST(BusNames, DecodeAcceptsLowerCaseHexAndPlainBytes) {
    EXPECT_EQ(decodeName("a%2fb%2F"), "a/b/");
    EXPECT_EQ(decodeName("plain name/with+#"), "plain name/with+#");
    EXPECT_EQ(decodeName(""), "");
}

TEST(BusNames, DecodeRejectsPercentWithoutTwoHexDigits) {
    EXPECT_EQ(decodeName("%zz"), std::nullopt);
    EXPECT_EQ(decodeName("%"), std::nullopt);
    EXPECT_EQ(decodeName("ab%2"), std::nullopt);
    EXPECT_EQ(decodeName("%g1"), std::nullopt);
    EXPECT_EQ(decodeName("%1g"), std::nullopt);
}

TEST(BusWire, SystemMessageTravelsAsTextWithKindAndId) {
    SystemMessage msg(128, 0);
    msg.setKind(34);
    msg.setText(std::string("he\0llo", 6));
    auto wire = toWire("NXAModule_demo", msg);
    ASSERT_TRUE(wire);
    EXPECT_EQ(wire->payload, std::string("he\0llo", 6));
    EXPECT_EQ(wire->properties, (Properties{{"vlp-sender", "NXAModule_demo"},
                                            {"vlp-type", "system"},
                                            {"vlp-id", "128"},
                                            {"vlp-kind", "34"}}));
}

TEST(BusWire, SetStateMessageTravelsWithStateAndValue) {
    auto wire = toWire("a/b", SystemSetStateVlpBusMessage("run ning", "text", 4294967296ul));
    ASSERT_TRUE(wire);
    EXPECT_EQ(wire->payload, "text");
    EXPECT_EQ(wire->properties, (Properties{{"vlp-sender", "a%2Fb"},
                                            {"vlp-type", "setstate"},
                                            {"vlp-id", "129"},
                                            {"vlp-state", "run%20ning"},
                                            {"vlp-value", "4294967296"}}));
}

TEST(BusWire, OtherMessageTypesDoNotTravel) {
    EXPECT_FALSE(toWire("x", MessageBase(1, 0)));
    EXPECT_FALSE(toWire("x", RouterMessage("y", nullptr)));
}

TEST(BusWire, SystemMessageComesBackWhole) {
    SystemMessage msg(300, 0);
    msg.setKind(255);
    msg.setText("\r\n");
    auto wire = toWire("a+b", msg);
    auto router = fromWire(wire->properties, wire->payload);
    EXPECT_EQ(router->sender(), "a+b");
    auto const* sm = systemPayload(*router);
    ASSERT_NE(sm, nullptr);
    EXPECT_EQ(sm->id(), 300u);
    EXPECT_EQ(sm->kind(), 255);
    EXPECT_EQ(sm->text(), "\r\n");
}

TEST(BusWire, SetStateMessageComesBackWhole) {
    auto wire =
        toWire("s", SystemSetStateVlpBusMessage("st/ate", "t", std::numeric_limits<unsigned long>::max(), 9));
    auto router = fromWire(wire->properties, wire->payload);
    auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(router->message());
    ASSERT_NE(state, nullptr);
    EXPECT_EQ(state->id(), 9u);
    EXPECT_EQ(state->state(), "st/ate");
    EXPECT_EQ(state->text(), "t");
    EXPECT_EQ(state->value(), std::numeric_limits<unsigned long>::max());
}

TEST(BusWire, MissingIdGivesTheTypesDefaultId) {
    auto router = fromWire(systemProperties("4"), "71-NXAStartOutput");
    ASSERT_NE(systemPayload(*router), nullptr);
    EXPECT_EQ(systemPayload(*router)->id(), 128u);
    auto state = fromWire({{"vlp-type", "setstate"}, {"vlp-state", "running"}, {"vlp-value", "0"}}, "");
    ASSERT_NE(state->message(), nullptr);
    EXPECT_EQ(state->message()->id(), 129u);
}

TEST(BusWire, KindOutsideZeroTo255GivesNoPayload) {
    for (char const* kind :
         {"256", "999", "-1", "abc", "", "+4", " 4", "4 ", "0x4", "99999999999999999999999"}) {
        auto router = fromWire(systemProperties(kind), "x");
        EXPECT_EQ(router->message(), nullptr) << "kind \"" << kind << "\"";
        EXPECT_EQ(router->sender(), "viewer");
    }
}

TEST(BusWire, KindWithLeadingZerosIsDecimal) {
    auto router = fromWire(systemProperties("0255"), "x");
    ASSERT_NE(systemPayload(*router), nullptr);
    EXPECT_EQ(systemPayload(*router)->kind(), 255);
}

TEST(BusWire, MissingKindGivesNoPayload) {
    EXPECT_EQ(fromWire({{"vlp-type", "system"}}, "x")->message(), nullptr);
}

TEST(BusWire, MalformedIdGivesNoPayload) {
    for (char const* id : {"x", "-1", "4294967296", ""}) {
        Properties props = systemProperties("4");
        props.emplace_back("vlp-id", id);
        EXPECT_EQ(fromWire(props, "x")->message(), nullptr) << "id \"" << id << "\"";
    }
}

TEST(BusWire, UnknownOrMissingTypeGivesNoPayload) {
    EXPECT_EQ(fromWire({{"vlp-sender", "v"}, {"vlp-type", "System"}, {"vlp-kind", "4"}}, "x")->message(),
              nullptr);
    EXPECT_EQ(fromWire({{"vlp-sender", "v"}, {"vlp-kind", "4"}}, "x")->message(), nullptr);
    EXPECT_EQ(fromWire({}, "x")->message(), nullptr);
}

TEST(BusWire, SetStateWithoutWellFormedStateOrValueGivesNoPayload) {
    EXPECT_EQ(fromWire({{"vlp-type", "setstate"}, {"vlp-value", "0"}}, "")->message(), nullptr);
    EXPECT_EQ(fromWire({{"vlp-type", "setstate"}, {"vlp-state", "%zz"}, {"vlp-value", "0"}}, "")->message(),
              nullptr);
    EXPECT_EQ(fromWire({{"vlp-type", "setstate"}, {"vlp-state", "running"}}, "")->message(), nullptr);
    EXPECT_EQ(
        fromWire({{"vlp-type", "setstate"}, {"vlp-state", "running"}, {"vlp-value", "18446744073709551616"}},
                 "")
            ->message(),
        nullptr);
}

TEST(BusWire, MissingSenderIsEmpty) {
    auto router = fromWire({{"vlp-type", "system"}, {"vlp-kind", "34"}}, "x");
    EXPECT_EQ(router->sender(), "");
    EXPECT_NE(router->message(), nullptr);
}

TEST(BusWire, MalformedSenderGivesEmptySenderAndNoPayload) {
    auto router = fromWire({{"vlp-sender", "%zz"}, {"vlp-type", "system"}, {"vlp-kind", "34"}}, "x");
    EXPECT_EQ(router->sender(), "");
    EXPECT_EQ(router->message(), nullptr);
}

TEST(BusWire, FirstOfRepeatedPropertiesCountsAndOthersAreIgnored) {
    auto router = fromWire({{"vlp-sender", "first"},
                            {"other", "x"},
                            {"vlp-type", "system"},
                            {"vlp-kind", "4"},
                            {"vlp-kind", "abc"},
                            {"vlp-sender", "second"}},
                           "t");
    EXPECT_EQ(router->sender(), "first");
    ASSERT_NE(systemPayload(*router), nullptr);
    EXPECT_EQ(systemPayload(*router)->kind(), 4);
}
