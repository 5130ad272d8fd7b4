// nxactl's own participant on the bus, asking the host's controls.
#pragma once

#include <vlplatform/messages.h>
#include <vlplatform/vlpbus_client.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "options.h"

// The system message kinds of the host's controls: a request to the host, and
// its reply to the requester's own bus name.
inline constexpr unsigned char kControlRequest = 64;
inline constexpr unsigned char kControlReply = 65;

// One run's connection to the bus under a name of its own ("nxactl-<pid>", so
// that two runs never share a name). Every wait counts against one deadline:
// the options' time-out from construction on. Failures are thrown as
// std::runtime_error with a one-line text for the user.
class ControlSession {
public:
    using Clock = std::chrono::steady_clock;

    explicit ControlSession(CtlOptions const& options);

    // Connects to the broker, trying again until the deadline. Throws when it
    // cannot be reached in time.
    void connect();
    // Sends `request` (a JSON object with "command" and its fields) to the
    // host with an "id" of its own and returns the host's reply to it, ignoring
    // every other message meanwhile. Throws when no reply comes before the
    // deadline or the connection is lost.
    nlohmann::json ask(nlohmann::json request);
    // Sends a system message of `kind` with `text` to the participant `to`.
    void send(std::string const& to, unsigned char kind, std::string const& text);
    // The connection, for a caller that reads further messages itself.
    VLPBusClient& bus() { return bus_; }

private:
    bool waitForInput(Clock::time_point until);
    bool isReplyTo(MessageBase const& message, std::string const& id) const;
    [[noreturn]] void noAnswer() const;

    CtlOptions const& options_;
    Clock::time_point deadline_;
    VLPBusClient bus_;
};

// The reply's answer when it says "ok"; throws its "error" otherwise.
nlohmann::json const& requireOk(nlohmann::json const& reply);
