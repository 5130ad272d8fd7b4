// The host's JSON answers as nxactl shows them to a person.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "table.h"

// A span of seconds, short and rounded down: "42s", "12m05s", "3h07m", "2d04h".
std::string formatDuration(double seconds);

// One row per module of the host's "modules" list: MODULE, PORT, STATE
// ("running", "ended", "restarting in N s"), PID and UPTIME (only while
// running), RESTARTS, LAST END, CLIENTS, SUBSCRIBERS, BYTES OUT, CHUNKS LOST.
Table statusTable(nlohmann::json const& modules);

// One row per consumer of the host's "clients" list: ID, KIND, ADDRESS,
// ATTACHED, DELIVERED (bytes), QUEUED (chunks), LOST CHUNKS, LOST BYTES.
Table clientsTable(nlohmann::json const& clients);

// The host's "package" answer as lines: the installed package (version, hash,
// signer and trusted comment, since when), its probation, the last good
// package, then the latest installs and rollbacks as a table (TIME, EVENT,
// VERSION, BLAKE2B, DETAIL). Times are UTC.
std::string packageView(nlohmann::json const& package);

// The package in a line or two under the status table: the installed package,
// its probation, the last good package, and the latest rollback if any.
std::string packageLines(nlohmann::json const& package);
