// The status of the running modules as one JSON document: the answer to the
// operator's status control and the browser console's /status.json alike.
#pragma once

#include <nxaclient.h>

#include <nlohmann/json.hpp>

#include "options.h"
#include "program_supervisor.h"

// {"ok": true, "modules": [...]}: one object per running module, in command
// line order, with its port, its program's state, pid, uptime, restarts and
// last end, its clients and subscribers, bytes out, chunks lost, whether its
// bus connection is up and, while a restart is due, "restart_in" (seconds).
// Changes nothing.
nlohmann::json statusAnswer(NXAClient& client, ProgramSupervisor const& supervisor,
                            HostOptions const& options);
