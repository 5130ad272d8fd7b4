// A bus subscriber played by the real command-line client: mosquitto_sub
// listening on a participant's topic "vlpbus/<id>" of the sandbox's broker.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "background.h"

namespace peerstest {

// One message as the subscriber printed it.
struct Received {
    std::set<std::string> properties;  // user properties as "key:value"
    std::string payload;               // the payload's bytes
};

class Subscriber {
public:
    // Starts mosquitto_sub for "vlpbus/<id>" and returns once it is subscribed.
    // Throws std::runtime_error when it cannot be started or never subscribes.
    explicit Subscriber(std::string const& id);

    // The messages received on "vlpbus/<id>" so far, in order.
    std::vector<Received> messages() const;
    // Waits until at least `count` messages have come; false on time-out.
    bool waitFor(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Kills the subscriber at once: it leaves the bus without a word.
    void leave();

private:
    std::string id_;
    nxatest::Background sub_;  // ended, if it still runs, when the subscriber is destroyed
};

}  // namespace peerstest
