#include "control.h"

#include <vlplatform/messages.h>

#include <chrono>

#include "control_request.h"
#include "host_log.h"
#include "module_status.h"

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

json failure(std::string const& error) {
    return json{{"ok", false}, {"error", error}};
}

double secondsSince(Clock::time_point then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

std::string noModule(std::string const& name) {
    return "no module named " + name;
}

// The text at `key` of a request; empty when it is missing or not a text.
std::string textOf(json const& request, char const* key) {
    auto it = request.find(key);
    return it != request.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

HostControl::HostControl(NXAClient& client, ProgramSupervisor const& supervisor, VLPBusClient& bus,
                         HostOptions const& options, Restart restart)
    : client_(client), supervisor_(supervisor), bus_(bus), options_(options), restart_(std::move(restart)) {}

bool HostControl::handle(RouterMessage const& msg) {
    auto const* system = dynamic_cast<SystemMessage const*>(msg.message());
    if (system == nullptr || system->kind() != kControlRequest) return false;
    json const request = parseRequest(system->text());
    if (request.is_null() || msg.sender().empty()) {
        if (options_.debug > 0)
            hostLog("[DEBUG] ", "ignored a control message from ", msg.sender(), ": not a request");
        return true;
    }
    json const id = request.contains("id") ? request["id"] : json();
    if (request["command"] == "restart") {
        restart(textOf(request, "module"), msg.sender(), id);
        return true;
    }
    json body = answer(request);
    if (body.is_null()) {
        if (options_.debug > 0)
            hostLog("[DEBUG] ", "ignored a control message from ", msg.sender(), ": unknown command");
        return true;
    }
    reply(msg.sender(), std::move(body), id);
    return true;
}

// Null for a request that is no command of ours.
json HostControl::answer(json const& request) {
    std::string const command = request["command"];
    if (command == "status") return status();
    if (command == "clients") return clients(textOf(request, "module"));
    if (command == "kick") return kick(textOf(request, "module"), textOf(request, "client"));
    return nullptr;
}

json HostControl::status() const {
    return statusAnswer(client_, supervisor_, options_);
}

json HostControl::clients(std::string const& name) const {
    NXAClient::Module const* module = client_.modules.find(name);
    if (module == nullptr) return failure(noModule(name));
    json rows = json::array();
    for (NXAClient::Module::Consumer const& c : module->getConsumers()) {
        rows.push_back(json{{"id", c.id},
                            {"kind", c.kind},
                            {"address", c.address},
                            {"attached", secondsSince(c.attachedAt)},
                            {"pushed", c.counters.pushed},
                            {"delivered", c.counters.delivered},
                            {"queued_chunks", c.queuedChunks},
                            {"queued_bytes", c.queuedBytes},
                            {"lost_chunks", c.counters.lostChunks},
                            {"lost_bytes", c.counters.lostBytes}});
    }
    return json{{"ok", true}, {"module", name}, {"clients", rows}};
}

json HostControl::kick(std::string const& name, std::string const& id) {
    NXAClient::Module* module = client_.modules.find(name);
    if (module == nullptr) return failure(noModule(name));
    if (id == "client") return failure("client is the run log of " + name + ", not a client");
    if (!module->detach(id)) return failure("module " + name + " has no client " + id);
    hostLog(kHostInfo, "client ", id, " of module ", name, " detached by an operator");
    return json{{"ok", true}};
}

void HostControl::restart(std::string const& name, std::string const& requester, json const& id) {
    bool const known = restart_(name, [this, requester, id](std::string const& error) {
        reply(requester, error.empty() ? json{{"ok", true}} : failure(error), id);
    });
    if (!known) reply(requester, failure(noModule(name)), id);
}

void HostControl::reply(std::string const& to, json body, json const& id) {
    if (!id.is_null()) body["id"] = id;
    auto message = std::make_unique<SystemMessage>();
    message->setKind(kControlReply);
    // Names from outside (a subscriber's bus name, a module's) may hold bytes
    // that are not UTF-8; JSON text cannot, so they become U+FFFD rather than
    // an exception that would end the host.
    message->setText(body.dump(-1, ' ', false, json::error_handler_t::replace));
    bus_.sendTo(options_.busName, to, std::move(message));
}
