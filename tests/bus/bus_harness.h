// What the bus tests share: the real command-line MQTT clients against the
// sandbox's broker, and a polling loop that drives a VLPBusClient.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "background.h"
#include "vlplatform/vlpbus_client.h"

namespace bustest {

using std::chrono::milliseconds;

// mosquitto_sub -V mqttv5 on one topic of the sandbox's broker, printing each
// message with a -F format that starts with "%t|" (so message lines start with
// the topic). The constructor returns once the broker has acknowledged the
// subscription; failures fail the calling test (check HasFatalFailure()).
class Subscriber {
public:
    Subscriber(std::string const& topic, std::string const& format, int count = 1);

    bool ready() const { return ready_; }
    // Waits until mosquitto_sub has printed `count` messages and ended; the
    // lines it printed for its messages (without the line feed), in order.
    std::vector<std::string> lines(milliseconds timeout = std::chrono::seconds(10));

private:
    // Fails the test (fatally) unless the broker acknowledges the subscription.
    void awaitSubscription();
    std::vector<std::string> messageLines() const;

    std::string topic_;
    nxatest::Background sub_;  // ended, if it still runs, when the subscriber is destroyed
    bool ready_ = false;
};

// Runs `mosquitto_pub -V mqttv5 -q 1 -p 20010 <arguments>` (QoS 1: it returns
// once the broker has taken the message, so messages of successive calls reach
// a subscriber in order) and returns its exit status; its output goes to the
// test log.
int publish(std::string const& arguments);

// `-D publish user-property <name> <value>` for each pair, shell-quoted.
std::string userProperties(std::vector<std::pair<std::string, std::string>> const& properties);

// A string quoted for /bin/sh.
std::string shellQuote(std::string const& text);

// Drives `client` as a polling loop would (fd(), waitFds, read()) until it has
// a message queued, and returns it; null when `timeout` passes or read()
// returns false.
std::unique_ptr<MessageBase> awaitMessage(VLPBusClient& client,
                                          milliseconds timeout = std::chrono::seconds(10));

// Drives `client` as above until `done()` holds; false on time-out or when
// read() returns false.
bool pumpUntil(VLPBusClient& client, std::function<bool()> const& done,
               milliseconds timeout = std::chrono::seconds(10));

// A client of the sandbox's broker (127.0.0.1:20010) named `name`, set up;
// the test fails unless it is connected.
std::unique_ptr<VLPBusClient> connectedClient(std::string const& name);

}  // namespace bustest
