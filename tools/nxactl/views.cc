#include "views.h"

#include <nxahost/control_protocol.h>
#include <nxahost/program_supervisor.h>

#include <cmath>
#include <ctime>
#include <sstream>

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

namespace {

std::string utc(long long seconds) {
    std::time_t const when = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&when, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

std::string shortHash(json const& info) {
    std::string const sha = info.value("blake2b", std::string());
    return sha.size() > 12 ? sha.substr(0, 12) : sha;
}

// "2.0 (blake2b 1a2b3c4d5e6f, key 3DABB00A2A0636CC)".
std::string describePackage(json const& info) {
    std::string const version = info.value("version", std::string());
    std::string text = (version.empty() ? "-" : version) + " (blake2b " + shortHash(info);
    std::string const key = info.value("key_id", std::string());
    return text + (key.empty() ? ")" : ", key " + key + ")");
}

}  // namespace

std::string packageView(json const& package) {
    std::ostringstream out;
    auto const installed = package.find("installed");
    if (installed == package.end() || !installed->is_object()) {
        out << "installed   none\n";
    } else {
        out << "installed   " << describePackage(*installed) << " since "
            << utc(installed->value("installed_at", 0LL)) << "\n";
        std::string const comment = installed->value("trusted_comment", std::string());
        if (!comment.empty()) out << "            trusted comment: " << comment << "\n";
    }
    if (package.contains("probation_until")) {
        out << "probation   until " << utc(package.value("probation_until", 0LL)) << " ("
            << formatDuration(number(package, "probation_left")) << " left)\n";
    } else {
        out << "probation   none\n";
    }
    auto const good = package.find("last_good");
    out << "last good   " << (good != package.end() && good->is_object() ? describePackage(*good) : "none")
        << "\n";
    out << "packages    "
        << (package.value("checked", false) ? "checked (signed by a trusted key)" : "not checked") << "\n\n";
    Table history({{"TIME", Align::left},
                   {"EVENT", Align::left},
                   {"VERSION", Align::left},
                   {"BLAKE2B", Align::left},
                   {"DETAIL", Align::left}});
    for (json const& event : package.value("history", json::array())) {
        history.addRow({utc(event.value("time", 0LL)), cell(event, "event"), cell(event, "version"),
                        shortHash(event).empty() ? "-" : shortHash(event), cell(event, "detail")});
    }
    history.print(out);
    return out.str();
}

std::string packageLines(json const& package) {
    auto const installed = package.find("installed");
    std::string text =
        "package " + (installed != package.end() && installed->is_object() ? describePackage(*installed)
                                                                           : std::string("none"));
    if (package.contains("probation_until"))
        text += ", on probation for " + formatDuration(number(package, "probation_left"));
    auto const good = package.find("last_good");
    text += ", last good " + (good != package.end() && good->is_object() ? describePackage(*good) : "none") +
            "\n";
    json const history = package.value("history", json::array());
    for (auto event = history.rbegin(); event != history.rend(); ++event) {
        if (event->value("event", std::string()) != "rolled back") continue;
        text += "rolled back " + utc(event->value("time", 0LL)) + ": " + cell(*event, "detail") + "\n";
        break;
    }
    return text;
}
