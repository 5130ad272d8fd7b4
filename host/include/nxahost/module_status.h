// What the controls tell an operator about the modules, as JSON: the answer
// to the status and clients requests and the browser console's /status.json.
#pragma once

#include <nxaclient.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "module_ports.h"
#include "program_supervisor.h"

namespace nxahost {

// {"ok": true, "modules": [...]}: one object per module of `ports` that runs,
// in that order, with its port, its program's state, pid, uptime (seconds to
// `now`, 0 unless running), restarts and last end, its clients and
// subscribers, bytes out, chunks lost, whether its bus connection is up and,
// while a restart is due, "restart_in" (seconds). Changes nothing.
nlohmann::json statusAnswer(NXAClient& client, ProgramSupervisor const& supervisor,
                            std::vector<ModulePort> const& ports, Clock::time_point now);

// {"ok": true, "module": name, "clients": [...]}: one object per consumer of
// the module's output with its id, kind, address, seconds attached and its
// counters (pushed = delivered + lost_bytes + queued_bytes); {"ok": false,
// "error": "no module named ..."} for an unknown module.
nlohmann::json clientsAnswer(NXAClient& client, std::string const& module);

// {"ok": false, "error": `error`}.
nlohmann::json failureAnswer(std::string const& error);

}  // namespace nxahost
