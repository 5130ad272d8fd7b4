// The wire form of bus messages: an MQTT v5 payload and user properties.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vlplatform/messages.h"

namespace VLPBus {

// MQTT v5 user properties (name, value), in the order they travel.
using Properties = std::vector<std::pair<std::string, std::string>>;

struct WireMessage {
    std::string payload;
    Properties properties;
};

// `msg` sent by `from`: for a SystemMessage the properties vlp-sender, vlp-type
// "system", vlp-id, vlp-kind and the text as payload; for a
// SystemSetStateVlpBusMessage vlp-sender, vlp-type "setstate", vlp-id,
// vlp-state, vlp-value and the text as payload. Names are percent-encoded,
// numbers decimal. Nothing for any other message type.
std::optional<WireMessage> toWire(std::string const& from, MessageBase const& msg);

// The RouterMessage for a received message. Its sender is the decoded
// vlp-sender (empty when missing or malformed). Its payload is a SystemMessage
// when vlp-type is "system" and vlp-kind a decimal 0..255, or a
// SystemSetStateVlpBusMessage when vlp-type is "setstate", vlp-state a
// well-formed name and vlp-value a decimal unsigned long; the text is the MQTT
// payload and the id vlp-id (a decimal unsigned, optional: the type's default
// id when missing). Anything else (an unknown or missing vlp-type, a property
// missing or malformed, a malformed sender) gives no payload. The first of
// several properties with one name counts; other properties are ignored.
std::unique_ptr<RouterMessage> fromWire(Properties const& properties, std::string payload);

}  // namespace VLPBus
