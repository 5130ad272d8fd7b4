// The clients a person would use against the host: nc and socat on a
// module's port, mosquitto_pub and mosquitto_sub on the bus, and two
// misbehaving TCP clients made by the test itself.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "background.h"
#include "host_process.h"

namespace e2e {

// A shell command in the background (tests/support/background.h).
using nxatest::Background;

// `nc 127.0.0.1 <port>`, typing what the test sends.
std::string ncCommand(unsigned port);
// `socat - TCP:127.0.0.1:<port>`, typing what the test sends.
std::string socatCommand(unsigned port);

// True while something accepts TCP connections on 127.0.0.1:<port> (asked with nc -z).
bool listening(unsigned port);

// A TCP connection made by the test itself, for clients no command-line tool
// plays well: one that resets its connection, one that never reads.
class RawClient {
public:
    // Connects to 127.0.0.1:<port>; fails the test when it cannot.
    explicit RawClient(unsigned port, int receiveBuffer = 0);
    ~RawClient();
    RawClient(RawClient const&) = delete;
    RawClient& operator=(RawClient const&) = delete;

    // Waits until at least `count` bytes have been received (and reads them).
    bool receive(std::size_t count, milliseconds timeout = kPatience);
    // Closes with SO_LINGER 0: the peer gets a reset instead of an end of stream.
    void reset();
    // Waits until the host has answered the connection: something to read, or
    // the connection closed. A test that connects many clients waits for each
    // answer first: a module's port queues one connection at a time.
    bool awaitAnswer(milliseconds timeout = kPatience) const;
    // The bytes waiting unread in the receive buffer.
    int unread() const;
    // The connection's descriptor (-1 after reset()).
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// Publishes a system message with mosquitto_pub (MQTT v5) to the bus
// participant `to` ("vlpbus/<to>"), as `sender`, with kind `kind`.
void publishSystem(std::string const& to, std::string const& sender, int kind, std::string const& text);

// Publishes `text` as a system message of kind 34 to the host's bus name
// `host` until `client` has received it (the host pushes such a text to every
// client of every module); false when it never arrives. Whatever the host did
// before it took the text in comes before it: a marker for "later".
bool textThroughHost(Background const& client, std::string const& text, std::string const& host = "NXAHost");

// mosquitto_sub -V mqttv5 on "vlpbus/<name>", printing each message on its own
// line in mosquitto_sub's output `format` (the payload alone by default; "%P %p"
// puts the user properties, key:value, before it). Returns once the
// subscription is known to be in place.
class BusSubscriber {
public:
    explicit BusSubscriber(std::string const& name, std::string const& format = "%p");
    // One subscriber on "vlpbus/<name>" for each of `names`: one connection,
    // which the broker gives the messages in the order it forwards them. The
    // probe that shows the subscription in place goes to the first name.
    BusSubscriber(std::vector<std::string> const& names, std::string const& format);
    std::string output() const { return sub_.output(); }
    bool waitFor(std::string const& text, milliseconds timeout = kPatience) const {
        return sub_.waitFor(text, timeout);
    }

private:
    Background sub_;
};

// The payload mosquitto_sub uses to see its subscription in place.
constexpr char kSubscriberProbe[] = "subscriber-probe";

// One message as mosquitto_sub -F '%t %x %P' (or '%t %x') prints it: topic,
// payload in hex, user properties as "key:value" separated by spaces.
struct BusMessage {
    std::string topic;
    std::string payload;
    std::string properties;
    std::string text() const { return topic + " [" + properties + "] " + payload; }
};

// The complete messages of such output, in the order they arrived.
std::vector<BusMessage> parseMessages(std::string const& output);

// The messages one a line, for a failure's message.
std::string listing(std::vector<BusMessage> const& messages);

// The index in `messages` of the first one on `topic` whose payload holds
// `text` and whose user properties hold `property`; std::string::npos when
// there is none.
std::size_t firstOf(std::vector<BusMessage> const& messages, std::string const& topic,
                    std::string const& text, std::string const& property = "");

}  // namespace e2e
