// One MQTT v5 connection through libmosquitto, driven without threads: every
// network step happens inside a call of this class.
#pragma once

#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "bus_wire.h"

struct mosquitto;
struct mosquitto_message;
typedef struct mqtt5__property mosquitto_property;

namespace VLPBus {

// A connection attempt (made by the constructor) and, when it succeeds, the
// connection with its one subscription. The libmosquitto handle lives exactly
// as long as the object; a lost or failed connection is never retried: the
// owner makes a new link.
class MqttLink {
public:
    // Called for each message received, with its topic, user properties and payload.
    using Receiver =
        std::function<void(std::string const& topic, Properties properties, std::string payload)>;

    struct Options {
        std::string host;         // broker address
        unsigned short port;      // broker port
        std::string clientId;     // empty: libmosquitto makes one up
        std::string topic;        // subscribed with QoS 0 once connected
        unsigned maxPacketBytes;  // announced to the broker as our maximum packet size
        int waitMs;               // longest wait for CONNACK and SUBACK
    };

    // Connects with MQTT v5, clean start and keep-alive 0, and subscribes,
    // waiting at most options.waitMs in all. connected() tells the outcome.
    // Throws IOException when libmosquitto cannot make a client (out of memory).
    MqttLink(Options const& options, Receiver receiver);
    ~MqttLink();
    MqttLink(MqttLink const&) = delete;
    MqttLink& operator=(MqttLink const&) = delete;

    // Whether CONNACK and SUBACK arrived with success and the connection still holds.
    bool connected() const { return state_ == State::connected; }
    // The connection's socket, -1 when not connected. Asked on every turn of
    // the owner's loop: the number as last seen after a libmosquitto call.
    int socket() const { return connected() ? socket_ : -1; }
    // Reads up to maxPackets packets that are ready, without blocking, and
    // flushes pending output. Returns false (and is no longer connected) when
    // the connection is lost.
    bool service(unsigned maxPackets);
    // Publishes (QoS 0, not retained) and flushes. Returns false (and is no
    // longer connected) when the connection is lost; a message the broker
    // cannot take (too big) is dropped and the result is true.
    bool publish(std::string const& topic, WireMessage const& message);
    // Sends DISCONNECT when connected; the link is then unconnected.
    void disconnect();

private:
    enum class State { connecting, subscribing, connected, failed };
    struct HandleDeleter {
        void operator()(mosquitto* handle) const;
    };

    void setCallbacks();
    void start(Options const& options);
    void awaitSubscription(int waitMs);
    bool step(int timeoutMs);
    bool readable() const;
    bool flush();
    int check(int rc);
    void lose();

    static void onConnect(mosquitto*, void* self, int rc, int flags, mosquitto_property const* props);
    static void onSubscribe(mosquitto*, void* self, int mid, int count, int const* granted,
                            mosquitto_property const* props);
    static void onMessage(mosquitto*, void* self, mosquitto_message const* msg,
                          mosquitto_property const* props);
    void subscribe();
    void receive(mosquitto_message const& msg, mosquitto_property const* props);
    void syncSocket();
    void forgetSocket();

    std::unique_ptr<mosquitto, HandleDeleter> handle_;
    Receiver receiver_;
    std::string topic_;
    State state_ = State::connecting;
    int subscribeMid_ = -1;
    std::exception_ptr pending_;  // thrown inside a callback, rethrown after the libmosquitto call
    // The socket as last seen: libmosquitto opens and closes it inside its own
    // calls, and the descriptor record must hear of both.
    int socket_ = -1;
};

}  // namespace VLPBus
