// The operator's side of the controls (see control_protocol.h): a bus
// participant that asks a host and waits for its answer.
#pragma once

#include <vlplatform/messages.h>
#include <vlplatform/vlpbus_client.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "control_protocol.h"

namespace nxahost {

// One run's connection to the bus under a name of its own. Every wait counts
// against one deadline: the time-out from construction on. Failures are
// thrown as std::runtime_error with a one-line text for the user.
class ControlClient {
public:
    using Clock = std::chrono::steady_clock;

    struct Setup {
        // The host's bus name.
        std::string host = control::kDefaultHostName;
        // The client's own bus name; two clients at once need two names.
        std::string ownName;
        std::chrono::milliseconds timeout{3000};
        // The time-out as the user wrote it, for messages ("3", "0.5").
        std::string timeoutText = "3";
    };

    explicit ControlClient(Setup setup);

    // Connects to the broker, trying again until the deadline. Throws when it
    // cannot be reached in time.
    void connect();
    // Sends `request` (a JSON object with "command" and its fields) to the
    // host with an "id" of its own and returns the host's answer to it,
    // ignoring every other message meanwhile. Throws when no answer comes
    // before the deadline or the connection is lost.
    nlohmann::json ask(nlohmann::json request);
    // Sends a system message of `kind` with `text` to the participant `to`.
    void send(std::string const& to, unsigned char kind, std::string const& text);
    // The connection, for a caller that reads further messages itself.
    VLPBusClient& bus() { return bus_; }

private:
    bool waitForInput(Clock::time_point until);
    bool isAnswerTo(MessageBase const& message, std::string const& id) const;
    [[noreturn]] void noAnswer() const;

    Setup setup_;
    Clock::time_point deadline_;
    VLPBusClient bus_;
};

// The answer when it says "ok"; throws its "error" otherwise.
nlohmann::json const& requireOk(nlohmann::json const& answer);

}  // namespace nxahost
