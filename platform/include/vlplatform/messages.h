// Messages carried by the bus.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

// Base of every bus message: an id and flags. print() writes a short, one-line,
// readable form for trace lines. Every form starts with the type's name and its
// id; strings are printed in double quotes with
//   \\ and \" for a backslash and a double quote, \t \n \r for those bytes, and
//   \xhh (two lower-case hex digits) for every other byte outside 0x20..0x7e,
// so a line never breaks, and a string longer than printLimit bytes shows its
// first printLimit bytes followed by ...(<total> bytes), e.g.
//   text="aaaa...aaaa"...(1000 bytes).
// The forms of the four types:
//   MessageBase id=7 flags=0
//   SystemMessage id=128 kind=34 text="hello\r\n"
//   SystemSetStateVlpBusMessage id=129 state="running" value=0 text=""
//   RouterMessage id=0 sender="viewer" message={SystemMessage id=128 kind=4 text="71-NXAStartOutput"}
//   RouterMessage id=0 sender="viewer" message=none
class MessageBase {
public:
    // Longest part of a string that print() shows.
    static constexpr std::size_t printLimit = 256;

    MessageBase(unsigned id, unsigned flags);
    virtual ~MessageBase();

    // An owned copy of the whole message, of its dynamic type.
    virtual std::unique_ptr<MessageBase> clone() const;
    // Writes the one-line form above (no line feed).
    virtual void print(std::ostream& os) const;

    unsigned id() const { return id_; }
    unsigned flags() const { return flags_; }

protected:
    MessageBase(MessageBase const&) = default;
    MessageBase& operator=(MessageBase const&) = default;

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
    SystemMessage(SystemMessage const&) = default;
    SystemMessage& operator=(SystemMessage const&) = default;

    std::unique_ptr<MessageBase> clone() const override;
    void print(std::ostream& os) const override;

    unsigned char kind() const { return kind_; }
    void setKind(unsigned char kind) { kind_ = kind; }
    std::string const& text() const { return text_; }
    void setText(std::string text) { text_ = std::move(text); }
    // Removes every NUL byte from the text; the other bytes keep their order.
    void stripNullChar();

private:
    unsigned char kind_ = 0;
    std::string text_;
};

// A participant's announcement of its state: a state name (one of
// VLPBus::statusNames), a text and a number. Its id is defaultId unless given.
class SystemSetStateVlpBusMessage : public MessageBase {
public:
    static constexpr unsigned defaultId = 129;

    SystemSetStateVlpBusMessage(std::string state, std::string text, unsigned long value,
                                unsigned id = defaultId);
    SystemSetStateVlpBusMessage(SystemSetStateVlpBusMessage const&) = default;
    SystemSetStateVlpBusMessage& operator=(SystemSetStateVlpBusMessage const&) = default;

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
// decoded, its payload (owned). A router message is an envelope: its own id is
// always 0 and its flags 0.
class RouterMessage : public MessageBase {
public:
    RouterMessage(std::string sender, std::unique_ptr<MessageBase> payload);

    // A deep copy: the payload is cloned too.
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
