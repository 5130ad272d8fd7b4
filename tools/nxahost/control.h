// The operator's controls of the host, over the bus (see README, "Operating
// the host"): a request is a system message of kind kControlRequest sent to
// the host's bus name, its text a JSON object {"command": ..., "id": ...};
// the answer goes back to the sender as kind kControlReply, a JSON object
// with "ok" and the request's "id".
#pragma once

#include <nxaclient.h>
#include <vlplatform/vlpbus_client.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "options.h"
#include "program_supervisor.h"

inline constexpr unsigned char kControlRequest = 64;
inline constexpr unsigned char kControlReply = 65;

// Answers status, clients, kick and restart requests. Anything else on the
// control kind (not JSON, no command, an unknown one) is ignored, with a DEBUG
// line at trace level 1 and above; it never changes anything.
class HostControl {
public:
    // Starts a module's program again (as the host does it: a forked copy
    // must not come back) and calls `done` once the new program runs; false,
    // without calling `done`, for an unknown module.
    using Restart = std::function<bool(std::string const&, ProgramSupervisor::RestartDone)>;

    HostControl(NXAClient& client, ProgramSupervisor const& supervisor, VLPBusClient& bus,
                HostOptions const& options, Restart restart);

    // Handles `msg` when it is a control request; returns whether it was one.
    // A restart is answered once the new program runs (or cannot start),
    // every other request at once.
    bool handle(RouterMessage const& msg);

private:
    nlohmann::json answer(nlohmann::json const& request);
    nlohmann::json status() const;
    nlohmann::json clients(std::string const& name) const;
    nlohmann::json kick(std::string const& name, std::string const& id);
    void restart(std::string const& name, std::string const& requester, nlohmann::json const& id);
    void reply(std::string const& to, nlohmann::json body, nlohmann::json const& id);

    NXAClient& client_;
    ProgramSupervisor const& supervisor_;
    VLPBusClient& bus_;
    HostOptions const& options_;
    Restart restart_;
};
