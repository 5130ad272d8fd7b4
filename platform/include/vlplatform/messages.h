// Messages carried by the bus.
#pragma once

#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Base of every bus message: an id and flags. print() writes a short, one-line,
// readable form for trace lines (bytes outside printable ASCII escaped).
class MessageBase {
public:
    MessageBase(unsigned id, unsigned flags);
    virtual ~MessageBase();

    // An owned copy of the whole message, of its dynamic type.
    virtual std::unique_ptr<MessageBase> clone() const;
    virtual void print(std::ostream& os) const;

    unsigned id() const { return id_; }
    unsigned flags() const { return flags_; }

private:
    unsigned id_;
    unsigned flags_;
};

// Calls msg.print(os).
std::ostream& operator<<(std::ostream& os, MessageBase const& msg);

// A message with a one-byte kind code and a text (any bytes).
class SystemMessage : public MessageBase {
public:
    explicit SystemMessage(unsigned id = 128, unsigned flags = 0);

    std::unique_ptr<MessageBase> clone() const override;
    void print(std::ostream& os) const override;

    unsigned char kind() const { return kind_; }
    void setKind(unsigned char kind) { kind_ = kind; }
    std::string const& text() const { return text_; }
    void setText(std::string text) { text_ = std::move(text); }
    // Removes every NUL byte from the text.
    void stripNullChar();

private:
    unsigned char kind_ = 0;
    std::string text_;
};

// A participant's announcement of its state: a state name (one of
// VLPBus::statusNames), a text and a number.
class SystemSetStateVlpBusMessage : public MessageBase {
public:
    SystemSetStateVlpBusMessage(std::string state, std::string text, unsigned long value);

    std::unique_ptr<MessageBase> clone() const override;
    void print(std::ostream& os) const override;

    std::string const& state() const { return state_; }
    std::string const& text() const { return text_; }
    unsigned long value() const { return value_; }

private:
    std::string state_;
    std::string text_;
    unsigned long value_;
};

// A received message: the sender's bus name and, when the message could be
// decoded, its payload.
class RouterMessage : public MessageBase {
public:
    RouterMessage(std::string sender, std::unique_ptr<MessageBase> payload);

    std::unique_ptr<MessageBase> clone() const override;
    void print(std::ostream& os) const override;

    std::string const& sender() const { return sender_; }
    // The payload, or null when there is none.
    MessageBase const* message() const { return payload_.get(); }

private:
    std::string sender_;
    std::unique_ptr<MessageBase> payload_;
};

namespace VLPBus {
// Participant states, in order: "unknown", "starting", "running", "stopping", "stopped".
extern std::vector<std::string> const statusNames;
}  // namespace VLPBus
