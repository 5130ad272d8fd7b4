#include "views.h"

#include <nxahost/control_protocol.h>
#include <nxahost/program_supervisor.h>

#include <cmath>

namespace {

using json = nlohmann::json;
namespace key = nxahost::control::key;
using Align = Table::Align;

// A field as text: a string as it is, a number in decimal, "-" when absent or empty.
std::string cell(json const& row, char const* key) {
    auto it = row.find(key);
    if (it == row.end() || it->is_null()) return "-";
    if (it->is_string()) return it->get<std::string>().empty() ? "-" : it->get<std::string>();
    if (it->is_number_float()) return std::to_string(static_cast<long long>(it->get<double>()));
    return it->dump();
}

double number(json const& row, char const* key) {
    auto it = row.find(key);
    return it != row.end() && it->is_number() ? it->get<double>() : 0.0;
}

std::string twoDigits(long long value) {
    return (value < 10 ? "0" : "") + std::to_string(value);
}

// "restarting in 3 s" while a restart is due, whole seconds rounded up.
std::string state(json const& module) {
    std::string const text = cell(module, key::kState);
    if (!module.contains(key::kRestartIn)) return text;
    return "restarting in " +
           std::to_string(static_cast<long long>(std::ceil(number(module, key::kRestartIn)))) + " s";
}

}  // namespace

std::string formatDuration(double seconds) {
    long long const s = seconds > 0 ? static_cast<long long>(seconds) : 0;
    if (s < 60) return std::to_string(s) + "s";
    if (s < 3600) return std::to_string(s / 60) + "m" + twoDigits(s % 60) + "s";
    if (s < 86400) return std::to_string(s / 3600) + "h" + twoDigits(s / 60 % 60) + "m";
    return std::to_string(s / 86400) + "d" + twoDigits(s / 3600 % 24) + "h";
}

Table statusTable(json const& modules) {
    Table table({{"MODULE", Align::left},
                 {"PORT", Align::right},
                 {"STATE", Align::left},
                 {"PID", Align::right},
                 {"UPTIME", Align::right},
                 {"RESTARTS", Align::right},
                 {"LAST END", Align::left},
                 {"CLIENTS", Align::right},
                 {"SUBSCRIBERS", Align::right},
                 {"BYTES OUT", Align::right},
                 {"CHUNKS LOST", Align::right}});
    for (json const& module : modules) {
        bool const running = cell(module, key::kState) == nxahost::stateName(nxahost::ProgramState::running);
        table.addRow({cell(module, key::kName), cell(module, key::kPort), state(module),
                      running ? cell(module, key::kPid) : "-",
                      running ? formatDuration(number(module, key::kUptime)) : "-",
                      cell(module, key::kRestarts), cell(module, key::kLastEnd),
                      cell(module, key::kClientCount), cell(module, key::kSubscribers),
                      cell(module, key::kBytesOut), cell(module, key::kChunksLost)});
    }
    return table;
}

Table clientsTable(json const& clients) {
    Table table({{"ID", Align::left},
                 {"KIND", Align::left},
                 {"ADDRESS", Align::left},
                 {"ATTACHED", Align::right},
                 {"DELIVERED", Align::right},
                 {"QUEUED", Align::right},
                 {"LOST CHUNKS", Align::right},
                 {"LOST BYTES", Align::right}});
    for (json const& client : clients) {
        table.addRow({cell(client, key::kId), cell(client, key::kKind), cell(client, key::kAddress),
                      formatDuration(number(client, key::kAttached)), cell(client, key::kDelivered),
                      cell(client, key::kQueuedChunks), cell(client, key::kLostChunks),
                      cell(client, key::kLostBytes)});
    }
    return table;
}
