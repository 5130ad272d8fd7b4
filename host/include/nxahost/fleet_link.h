// The host's MQTT connection for the fleet: what the centre wants of this
// device comes in on it, what the device reports goes out, retained.
#pragma once

#include <vlplatform/fd_set.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace nxahost {

// One MQTT v5 connection to the device's broker, driven by the host's turn
// (addFds, then serve on what the wait found ready): connecting never waits,
// and a connection refused or lost is tried again every second. Once
// connected it subscribes to each of `subscriptions` (QoS 1) and publishes
// `presence` (retained), and it leaves `will` (retained) for the broker to
// publish when the connection ends without a goodbye (the host killed). The
// bridge to the centre carries both, so the centre knows the device's last
// word either way. Messages published while unconnected are kept, the last
// one per topic, and published once connected.
class FleetLink {
public:
    struct Setup {
        std::string host = "127.0.0.1";
        unsigned short port = 20010;
        std::string clientId = "nxahost-fleet";
        std::vector<std::string> subscriptions;
        // Topic and payload of the presence published on each connection,
        // and of the will left with the broker.
        std::string presenceTopic;
        std::string presence;
        std::string will;
    };
    // Called with the topic and payload of each message received; what it
    // throws is written as an ERROR line and goes no further.
    using Receiver = std::function<void(std::string const& topic, std::string const& payload)>;

    // Starts connecting. Throws std::runtime_error when libmosquitto cannot
    // make a client.
    FleetLink(Setup setup, Receiver receiver);
    ~FleetLink();
    FleetLink(FleetLink const&) = delete;
    FleetLink& operator=(FleetLink const&) = delete;

    int addFds(FdSet& rd, FdSet& wr, int timeoutMs) const;
    void serve(FdSet const& rd, FdSet const& wr);

    // Publishes `payload` on `topic`, retained, QoS 1, now if connected, and
    // again on each connection.
    void publishRetained(std::string const& topic, std::string const& payload);
    // Whether the broker took the connection and the subscriptions were sent.
    bool connected() const { return connected_; }
    // Says goodbye (the will is not published), after writing what is
    // pending for at most `patience`. The link stays closed.
    void close(std::chrono::milliseconds patience = std::chrono::milliseconds(500));

private:
    using SteadyClock = std::chrono::steady_clock;
    struct HandleDeleter {
        void operator()(mosquitto* handle) const;
    };

    void connect();
    void lose();
    void publish(std::string const& topic, std::string const& payload);
    void syncSocket();
    static void onConnect(mosquitto*, void* self, int rc);
    static void onMessage(mosquitto*, void* self, mosquitto_message const* message);

    Setup setup_;
    Receiver receiver_;
    std::unique_ptr<mosquitto, HandleDeleter> handle_;
    bool connected_ = false;
    bool refused_ = false;
    bool closed_ = false;
    int socket_ = -1;
    SteadyClock::time_point nextAttempt_;
    std::map<std::string, std::string> retained_;
};

}  // namespace nxahost
