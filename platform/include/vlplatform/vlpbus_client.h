// One participant's connection to the bus, carried over MQTT v5 by a broker.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "vlplatform/messages.h"

// A named bus participant. It connects to the broker with MQTT v5, client id =
// its percent-encoded name (an empty name gets an id made up by the MQTT
// library), clean start and keep-alive 0, and receives what is sent to it on
// topic "vlpbus/<encoded name>" (subscribed with QoS 0). It never runs a
// thread: the owner's polling loop drives it through fd(), read(), getMessage()
// and sendTo(); no call waits longer than connectWaitMs.
//
// Names on the wire are percent-encoded: every byte outside A-Z a-z 0-9 . _ ~ -
// becomes "%" and two upper-case hex digits. A message travels as an MQTT
// payload with user properties: vlp-sender (encoded), vlp-type ("system" or
// "setstate"), vlp-id (decimal), then for "system" vlp-kind (decimal) with the
// text as payload, for "setstate" vlp-state (encoded) and vlp-value (decimal)
// with the text as payload.
//
// The first setup() in a process makes the process ignore SIGPIPE, for good:
// the MQTT library does this when it makes a client.
class VLPBusClient {
public:
    // Largest incoming packet accepted: announced to the broker in CONNECT, so
    // the broker drops (and never sends us) a bigger message. A text of 1 MiB
    // fits, with room for the topic and properties.
    static constexpr unsigned maxPacketBytes = 1024 * 1024 + 4096;
    // Longest wait for the broker's answers (CONNACK, then SUBACK) in setup()
    // and connectToServer().
    static constexpr int connectWaitMs = 500;
    // Received messages waiting for getMessage() are bounded in number and in
    // bytes (payload and properties); a message that does not fit is dropped
    // and counted (droppedMessages()).
    static constexpr std::size_t maxQueuedMessages = 256;
    static constexpr std::size_t maxQueuedBytes = 8 * 1024 * 1024;
    // Most packets read by one read(), so that one call stays short.
    static constexpr unsigned maxPacketsPerRead = 64;

    // host: the broker's address ("" means 127.0.0.1); port: its port; name: the
    // participant's bus name (any bytes). Connects to nothing yet.
    VLPBusClient(std::string const& host, unsigned short port, std::string const& name);
    // Disconnects (see disconnectFromServer()).
    ~VLPBusClient();
    VLPBusClient(VLPBusClient const&) = delete;
    VLPBusClient& operator=(VLPBusClient const&) = delete;

    // Lowers (or raises) the largest incoming packet this client accepts, for
    // the connections made from now on (default maxPacketBytes). A host that
    // fans what it receives out to many modules keeps it small.
    void setMaxPacketBytes(unsigned bytes);

    // Creates the MQTT client and tries once to connect and subscribe, waiting
    // at most connectWaitMs for the broker's answers. Leaves the client
    // unconnected when there is no broker or it does not answer in time. Nothing
    // happens when connected. Throws IOException when no MQTT client can be made.
    void setup();
    // One more connection attempt, exactly as setup().
    void connectToServer();
    // Connected: the broker accepted the connection and the subscription, and
    // the connection has not been found lost since.
    bool isConnected() const;
    // The connection's socket, -1 when not connected. Asked for every module
    // on every turn of a host's loop, so it is the number as left by the last
    // call that could change it.
    int fd() const { return fd_; }
    // Reads what is ready without blocking (at most maxPacketsPerRead packets),
    // flushes pending output and queues the messages received. Returns false
    // when the connection is lost (the client is then unconnected, fd() -1)
    // and when it was not connected.
    bool read();
    // The next queued message (a RouterMessage), or null when none is left.
    // A message that could not be decoded is a RouterMessage without payload.
    std::unique_ptr<MessageBase> getMessage();
    // Publishes msg from `from` to the participant `to` (topic
    // "vlpbus/<encoded to>", QoS 0, not retained) and flushes it. Nothing is sent
    // for a null msg, a type the bus cannot carry (only SystemMessage and
    // SystemSetStateVlpBusMessage travel), while unconnected, or when the broker
    // cannot take it (too big). A connection found lost leaves the client
    // unconnected. Output the socket cannot take at once goes out on the next
    // read() or sendTo().
    void sendTo(std::string const& from, std::string const& to, std::unique_ptr<MessageBase> msg);
    // Sends DISCONNECT when connected and closes the connection; queued
    // messages stay. The client can connect again later.
    void disconnectFromServer();
    std::string const& name() const { return name_; }
    // How many received messages were dropped because the queue was full.
    unsigned long droppedMessages() const;

private:
    struct Impl;
    // Takes fd_ from the connection when it leaves scope, also by exception.
    class FdRefresh;

    std::string name_;
    std::unique_ptr<Impl> impl_;
    int fd_ = -1;
};
