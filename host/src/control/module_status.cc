#include <nxahost/control_protocol.h>
#include <nxahost/module_status.h>

#include <algorithm>
#include <chrono>

namespace nxahost {
namespace {

using json = nlohmann::json;
using Kind = NXAClient::Module::ConsumerKind;
namespace key = control::key;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

struct Tally {
    unsigned long long clients = 0, subscribers = 0, bytesOut = 0, chunksLost = 0;
};

Tally tally(NXAClient::Module const& module) {
    Tally t;
    for (NXAClient::Module::Consumer const& c : module.getConsumers()) {
        if (c.kind == Kind::log) t.bytesOut = c.counters.pushed;
        // A browser terminal is a client like a TCP one.
        if (c.kind == Kind::tcp || c.kind == Kind::local) ++t.clients;
        if (c.kind == Kind::bus) ++t.subscribers;
        if (c.kind != Kind::log) t.chunksLost += c.counters.lostChunks;
    }
    return t;
}

json moduleStatus(NXAClient::Module const& module, unsigned short port, ProgramSupervisor const& supervisor,
                  Clock::time_point now) {
    ProgramSupervisor::Status const program = supervisor.status(module.getName());
    Tally const t = tally(module);
    bool const running = program.state == ProgramState::running;
    json row{{key::kName, module.getName()},
             {key::kPort, port},
             {key::kState, stateName(program.state)},
             {key::kPid, program.pid},
             {key::kUptime, running ? secondsBetween(program.startedAt, now) : 0.0},
             {key::kRestarts, program.restarts},
             {key::kLastEnd, program.lastEnd},
             {key::kClientCount, t.clients},
             {key::kSubscribers, t.subscribers},
             {key::kBytesOut, t.bytesOut},
             {key::kChunksLost, t.chunksLost},
             {key::kBus, module.busConnected()}};
    if (program.restartAt) row[key::kRestartIn] = std::max(0.0, secondsBetween(now, *program.restartAt));
    return row;
}

json consumerRow(NXAClient::Module::Consumer const& c, std::chrono::steady_clock::time_point now) {
    return json{{key::kId, c.id},
                {key::kKind, NXAClient::Module::kindName(c.kind)},
                {key::kAddress, c.address},
                {key::kAttached, secondsBetween(c.attachedAt, now)},
                {key::kPushed, c.counters.pushed},
                {key::kDelivered, c.counters.delivered},
                {key::kQueuedChunks, c.queuedChunks},
                {key::kQueuedBytes, c.queuedBytes},
                {key::kLostChunks, c.counters.lostChunks},
                {key::kLostBytes, c.counters.lostBytes}};
}

}  // namespace

json failureAnswer(std::string const& error) {
    return json{{key::kOk, false}, {key::kError, error}};
}

json statusAnswer(NXAClient& client, ProgramSupervisor const& supervisor,
                  std::vector<ModulePort> const& ports, Clock::time_point now) {
    json modules = json::array();
    for (ModulePort const& entry : ports) {
        if (NXAClient::Module const* module = client.modules.find(entry.name))
            modules.push_back(moduleStatus(*module, entry.port, supervisor, now));
    }
    return json{{key::kOk, true}, {key::kModules, modules}};
}

json clientsAnswer(NXAClient& client, std::string const& module) {
    NXAClient::Module const* found = client.modules.find(module);
    if (found == nullptr) return failureAnswer("no module named " + module);
    json rows = json::array();
    auto const now = std::chrono::steady_clock::now();
    for (NXAClient::Module::Consumer const& c : found->getConsumers()) rows.push_back(consumerRow(c, now));
    return json{{key::kOk, true}, {key::kModule, module}, {key::kConsumers, rows}};
}

}  // namespace nxahost
