#include "module_status.h"

#include <algorithm>
#include <chrono>

#include "module_ports.h"

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

json moduleStatus(NXAClient::Module const& module, unsigned short port, ProgramSupervisor const& supervisor) {
    ProgramSupervisor::Status const program = supervisor.status(module.getName());
    unsigned long long clients = 0, subscribers = 0, bytesOut = 0, chunksLost = 0;
    for (NXAClient::Module::Consumer const& c : module.getConsumers()) {
        if (c.kind == "log") bytesOut = c.counters.pushed;
        if (c.kind == "tcp") ++clients;
        if (c.kind == "bus") ++subscribers;
        if (c.kind != "log") chunksLost += c.counters.lostChunks;
    }
    double const uptime = program.state == "running"
                              ? std::chrono::duration<double>(Clock::now() - program.startedAt).count()
                              : 0.0;
    json row{{"name", module.getName()},
             {"port", port},
             {"state", program.state.empty() ? "running" : program.state},
             {"pid", program.pid},
             {"uptime", uptime},
             {"restarts", program.restarts},
             {"last_end", program.lastEnd},
             {"clients", clients},
             {"subscribers", subscribers},
             {"bytes_out", bytesOut},
             {"chunks_lost", chunksLost},
             {"bus", module.busConnected()}};
    if (program.restartAt) {
        row["restart_in"] =
            std::max(0.0, std::chrono::duration<double>(*program.restartAt - Clock::now()).count());
    }
    return row;
}

}  // namespace

json statusAnswer(NXAClient& client, ProgramSupervisor const& supervisor, HostOptions const& options) {
    json modules = json::array();
    std::vector<ModulePort> const ports =
        runningModulePorts(options.modules, options.maxModules, options.port, client.getModulesInstalled());
    for (ModulePort const& entry : ports) {
        if (NXAClient::Module const* module = client.modules.find(entry.name))
            modules.push_back(moduleStatus(*module, entry.port, supervisor));
    }
    return json{{"ok", true}, {"modules", modules}};
}
