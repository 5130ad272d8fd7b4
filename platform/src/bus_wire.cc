#include "bus_wire.h"

#include <limits>

#include "bus_names.h"

namespace VLPBus {

namespace {

WireMessage systemToWire(std::string const& from, SystemMessage const& msg) {
    return {msg.text(),
            {{"vlp-sender", encodeName(from)},
             {"vlp-type", "system"},
             {"vlp-id", std::to_string(msg.id())},
             {"vlp-kind", std::to_string(static_cast<unsigned>(msg.kind()))}}};
}

WireMessage setStateToWire(std::string const& from, SystemSetStateVlpBusMessage const& msg) {
    return {msg.text(),
            {{"vlp-sender", encodeName(from)},
             {"vlp-type", "setstate"},
             {"vlp-id", std::to_string(msg.id())},
             {"vlp-state", encodeName(msg.state())},
             {"vlp-value", std::to_string(msg.value())}}};
}

std::string const* find(Properties const& properties, char const* name) {
    for (auto const& property : properties) {
        if (property.first == name) return &property.second;
    }
    return nullptr;
}

// A decimal number from 0 to max: digits only, no sign, no blanks.
std::optional<unsigned long> parseDecimal(std::string const* text, unsigned long max) {
    if (!text || text->empty()) return std::nullopt;
    unsigned long value = 0;
    for (char c : *text) {
        if (c < '0' || c > '9') return std::nullopt;
        unsigned digit = static_cast<unsigned>(c - '0');
        if (value > (max - digit) / 10) return std::nullopt;
        value = value * 10 + digit;
    }
    return value;
}

// The message id: vlp-id when present (nothing when malformed), else fallback.
std::optional<unsigned> messageId(Properties const& properties, unsigned fallback) {
    std::string const* text = find(properties, "vlp-id");
    if (!text) return fallback;
    auto id = parseDecimal(text, std::numeric_limits<unsigned>::max());
    if (!id) return std::nullopt;
    return static_cast<unsigned>(*id);
}

std::unique_ptr<MessageBase> systemFromWire(Properties const& properties, std::string payload) {
    auto kind = parseDecimal(find(properties, "vlp-kind"), 255);
    auto id = messageId(properties, 128);
    if (!kind || !id) return nullptr;
    auto msg = std::make_unique<SystemMessage>(*id, 0);
    msg->setKind(static_cast<unsigned char>(*kind));
    msg->setText(std::move(payload));
    return msg;
}

std::unique_ptr<MessageBase> setStateFromWire(Properties const& properties, std::string payload) {
    std::string const* wireState = find(properties, "vlp-state");
    auto state = wireState ? decodeName(*wireState) : std::nullopt;
    auto value = parseDecimal(find(properties, "vlp-value"), std::numeric_limits<unsigned long>::max());
    auto id = messageId(properties, SystemSetStateVlpBusMessage::defaultId);
    if (!state || !value || !id) return nullptr;
    return std::make_unique<SystemSetStateVlpBusMessage>(std::move(*state), std::move(payload), *value, *id);
}

std::unique_ptr<MessageBase> payloadFromWire(Properties const& properties, std::string payload) {
    std::string const* type = find(properties, "vlp-type");
    if (!type) return nullptr;
    if (*type == "system") return systemFromWire(properties, std::move(payload));
    if (*type == "setstate") return setStateFromWire(properties, std::move(payload));
    return nullptr;
}

}  // namespace

std::optional<WireMessage> toWire(std::string const& from, MessageBase const& msg) {
    if (auto const* system = dynamic_cast<SystemMessage const*>(&msg)) return systemToWire(from, *system);
    if (auto const* state = dynamic_cast<SystemSetStateVlpBusMessage const*>(&msg)) {
        return setStateToWire(from, *state);
    }
    return std::nullopt;
}

std::unique_ptr<RouterMessage> fromWire(Properties const& properties, std::string payload) {
    std::string const* wireSender = find(properties, "vlp-sender");
    auto sender = wireSender ? decodeName(*wireSender) : std::string();
    // A sender that cannot be decoded makes the whole message unusable.
    if (!sender) return std::make_unique<RouterMessage>("", nullptr);
    return std::make_unique<RouterMessage>(std::move(*sender),
                                           payloadFromWire(properties, std::move(payload)));
}

}  // namespace VLPBus
