// The host's side of the operator's controls (see control_protocol.h).
#pragma once

#include <nxaclient.h>
#include <vlplatform/messages.h>
#include <vlplatform/vlpbus_client.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "program_supervisor.h"

namespace nxahost {

// Answers status, clients, kick and restart requests, and reload and package
// requests when the host gives them (see Hooks). Anything else on the
// request kind (not JSON, nested too deeply, no command, an unknown one, an
// id that is no text or number) is ignored, with a DEBUG line at trace level
// 1 and above; it never changes anything. Works inside the host's loop: it is
// handed the bus messages the host receives, and sends through `send`.
class ControlServer {
public:
    // Sends the text of an answer to the bus name `to` (as kReplyKind).
    using Send = std::function<void(std::string const& to, std::string const& text)>;
    // The status answer (see statusAnswer).
    using Status = std::function<nlohmann::json()>;
    // Starts a module's program again and calls `done` once the new program
    // runs; false, without calling `done`, for an unknown module.
    using Restart = std::function<bool(std::string const& module, ProgramSupervisor::RestartDone done)>;

    // What the host does for the requests beyond the modules'.
    struct Hooks {
        Status status;
        Restart restart;
        // Reloads the package, letting a module's version go back when asked
        // (allow_downgrade); returns what was wrong, empty once installed. Null:
        // reload requests are no command of this host's.
        std::function<std::string(bool allowDowngrade)> reload;
        // What the host knows of its packages (see SafeReload::describe). Null:
        // package requests are no command of this host's.
        std::function<nlohmann::json()> package;
    };

    // `client` must outlive the server.
    ControlServer(NXAClient& client, Hooks hooks, Send send, unsigned debug = 0);

    // Handles `msg` when it is a control request; returns whether it was one
    // (whether or not it was valid). A restart is answered once the new
    // program runs (or cannot start), every other request at once.
    bool handle(RouterMessage const& msg);

    // A Send over `bus`, the answer going out as a system message of
    // kReplyKind from the bus name `from`. The bus client must outlive it.
    static Send overBus(VLPBusClient& bus, std::string from);

private:
    nlohmann::json answer(nlohmann::json const& request);
    nlohmann::json kick(std::string const& module, std::string const& id);
    nlohmann::json reload(nlohmann::json const& request);
    void restart(std::string const& module, std::string const& requester, nlohmann::json const& id);
    void reply(std::string const& to, nlohmann::json body, nlohmann::json const& id);
    void ignored(std::string const& sender, char const* why) const;

    NXAClient& client_;
    Hooks hooks_;
    Send send_;
    unsigned debug_;
};

}  // namespace nxahost
