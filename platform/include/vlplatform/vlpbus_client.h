// One participant's connection to the bus, carried over MQTT v5 by a broker.
#pragma once

#include <memory>
#include <string>

#include "vlplatform/messages.h"

// A named bus participant. It connects to the broker as MQTT client id = its
// (percent-encoded) name and receives what is sent to it on topic
// "vlpbus/<name>". It never runs a thread: the owner's polling loop drives it
// through fd(), read(), getMessage() and sendTo(). The first client made in a
// process makes the process ignore SIGPIPE (the MQTT library does this).
class VLPBusClient {
public:
    // Largest incoming packet accepted; the broker drops a bigger one for us.
    static constexpr unsigned maxPacketBytes = 1024 * 1024 + 4096;
    // Longest wait for the broker's answer in setup() and connectToServer().
    static constexpr int connectWaitMs = 500;

    // host: the broker's address ("" means 127.0.0.1); port: its port; name: the
    // participant's bus name. Connects to nothing yet.
    VLPBusClient(std::string const& host, unsigned short port, std::string const& name);
    ~VLPBusClient();
    VLPBusClient(VLPBusClient const&) = delete;
    VLPBusClient& operator=(VLPBusClient const&) = delete;

    // Creates the MQTT client and tries once to connect and subscribe, waiting
    // at most connectWaitMs for the broker's answer. Leaves the client
    // unconnected when there is no broker.
    void setup();
    // One more connection attempt, as in setup(). Nothing happens when connected.
    void connectToServer();
    bool isConnected() const;
    // The connection's socket, -1 when not connected.
    int fd() const;
    // Reads whatever is ready without blocking, flushes pending output and
    // queues the messages received. Returns false when the connection is lost
    // (the client is then unconnected).
    bool read();
    // The next queued message (a RouterMessage), or null when none is left.
    std::unique_ptr<MessageBase> getMessage();
    // Publishes msg from `from` to the participant `to` and flushes it. A message
    // type the bus cannot carry is dropped. Nothing is sent while unconnected.
    void sendTo(std::string const& from, std::string const& to, std::unique_ptr<MessageBase> msg);
    // Disconnects; the client can connect again later.
    void disconnectFromServer();
    std::string const& name() const { return name_; }

private:
    struct Impl;
    std::string name_;
    std::unique_ptr<Impl> impl_;
};
