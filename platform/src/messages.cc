#include "vlplatform/messages.h"

#include <algorithm>

namespace {

char const hexDigits[] = "0123456789abcdef";

struct Escape {
    char byte;
    char const* text;
};
Escape const escapes[] = {{'\\', "\\\\"}, {'"', "\\\""}, {'\t', "\\t"}, {'\n', "\\n"}, {'\r', "\\r"}};

void printEscaped(std::ostream& os, char c) {
    for (Escape const& e : escapes) {
        if (c == e.byte) {
            os << e.text;
            return;
        }
    }
    auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte <= 0x7e) {
        os << c;
        return;
    }
    os << "\\x" << hexDigits[byte >> 4] << hexDigits[byte & 0xf];
}

// The quoted, escaped and possibly shortened form of a string in print().
void printQuoted(std::ostream& os, std::string const& text) {
    std::size_t shown = std::min(text.size(), MessageBase::printLimit);
    os << '"';
    for (std::size_t i = 0; i < shown; ++i) printEscaped(os, text[i]);
    os << '"';
    if (shown < text.size()) os << "...(" << text.size() << " bytes)";
}

}  // namespace

MessageBase::MessageBase(unsigned id, unsigned flags) : id_(id), flags_(flags) {}

MessageBase::~MessageBase() = default;

std::unique_ptr<MessageBase> MessageBase::clone() const {
    return std::unique_ptr<MessageBase>(new MessageBase(*this));
}

void MessageBase::print(std::ostream& os) const {
    os << "MessageBase id=" << id_ << " flags=" << flags_;
}

std::ostream& operator<<(std::ostream& os, MessageBase const& msg) {
    msg.print(os);
    return os;
}

SystemMessage::SystemMessage(unsigned id, unsigned flags) : MessageBase(id, flags) {}

std::unique_ptr<MessageBase> SystemMessage::clone() const {
    return std::make_unique<SystemMessage>(*this);
}

void SystemMessage::print(std::ostream& os) const {
    os << "SystemMessage id=" << id() << " kind=" << static_cast<unsigned>(kind_) << " text=";
    printQuoted(os, text_);
}

void SystemMessage::stripNullChar() {
    text_.erase(std::remove(text_.begin(), text_.end(), '\0'), text_.end());
}

SystemSetStateVlpBusMessage::SystemSetStateVlpBusMessage(std::string state, std::string text,
                                                         unsigned long value, unsigned id)
    : MessageBase(id, 0), state_(std::move(state)), text_(std::move(text)), value_(value) {}

std::unique_ptr<MessageBase> SystemSetStateVlpBusMessage::clone() const {
    return std::make_unique<SystemSetStateVlpBusMessage>(*this);
}

void SystemSetStateVlpBusMessage::print(std::ostream& os) const {
    os << "SystemSetStateVlpBusMessage id=" << id() << " state=";
    printQuoted(os, state_);
    os << " value=" << value_ << " text=";
    printQuoted(os, text_);
}

RouterMessage::RouterMessage(std::string sender, std::unique_ptr<MessageBase> payload)
    : MessageBase(0, 0), sender_(std::move(sender)), payload_(std::move(payload)) {}

std::unique_ptr<MessageBase> RouterMessage::clone() const {
    return std::make_unique<RouterMessage>(sender_, payload_ ? payload_->clone() : nullptr);
}

void RouterMessage::print(std::ostream& os) const {
    os << "RouterMessage id=" << id() << " sender=";
    printQuoted(os, sender_);
    if (!payload_) {
        os << " message=none";
        return;
    }
    os << " message={" << *payload_ << '}';
}

namespace VLPBus {
std::vector<std::string> const statusNames{"unknown", "starting", "running", "stopping", "stopped"};
}  // namespace VLPBus
