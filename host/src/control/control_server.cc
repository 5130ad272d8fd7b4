#include <nxahost/control_protocol.h>
#include <nxahost/control_server.h>
#include <nxahost/log.h>
#include <nxahost/module_status.h>

namespace nxahost {
namespace {

using json = nlohmann::json;
namespace key = control::key;

// The text at `name` of a request; empty when it is missing or not a text.
std::string textOf(json const& request, char const* name) {
    auto it = request.find(name);
    return it != request.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

ControlServer::ControlServer(NXAClient& client, Hooks hooks, Send send, unsigned debug)
    : client_(client), hooks_(std::move(hooks)), send_(std::move(send)), debug_(debug) {}

ControlServer::Send ControlServer::overBus(VLPBusClient& bus, std::string from) {
    return [&bus, from = std::move(from)](std::string const& to, std::string const& text) {
        auto message = std::make_unique<SystemMessage>();
        message->setKind(control::kReplyKind);
        message->setText(text);
        bus.sendTo(from, to, std::move(message));
    };
}

bool ControlServer::handle(RouterMessage const& msg) {
    auto const* system = dynamic_cast<SystemMessage const*>(msg.message());
    if (system == nullptr || system->kind() != control::kRequestKind) return false;
    json const request = control::parseRequest(system->text());
    if (request.is_null() || msg.sender().empty()) {
        ignored(msg.sender(), "not a request");
        return true;
    }
    json const id = request.contains(key::kId) ? request[key::kId] : json();
    if (request[key::kCommand] == control::kRestart) {
        restart(textOf(request, key::kModule), msg.sender(), id);
        return true;
    }
    json body = answer(request);
    if (body.is_null()) {
        ignored(msg.sender(), "unknown command");
        return true;
    }
    reply(msg.sender(), std::move(body), id);
    return true;
}

// Null for a request that is no command of ours.
json ControlServer::answer(json const& request) {
    std::string const command = request[key::kCommand];
    if (command == control::kStatus) return hooks_.status();
    if (command == control::kClients) return clientsAnswer(client_, textOf(request, key::kModule));
    if (command == control::kKick) return kick(textOf(request, key::kModule), textOf(request, key::kClient));
    if (command == control::kReload && hooks_.reload) return reload(request);
    if (command == control::kPackage && hooks_.package)
        return json{{key::kOk, true}, {key::kPackage, hooks_.package()}};
    return nullptr;
}

json ControlServer::reload(json const& request) {
    auto const allow = request.find(key::kAllowDowngrade);
    std::string const problem = hooks_.reload(allow != request.end() && *allow == true);
    return problem.empty() ? json{{key::kOk, true}} : failureAnswer(problem);
}

json ControlServer::kick(std::string const& name, std::string const& id) {
    NXAClient::Module* module = client_.modules.find(name);
    if (module == nullptr) return failureAnswer("no module named " + name);
    if (id == "client") return failureAnswer("client is the run log of " + name + ", not a client");
    if (!module->detach(id)) return failureAnswer("module " + name + " has no client " + id);
    hostLog(kHostInfo, "client ", id, " of module ", name, " detached by an operator");
    return json{{key::kOk, true}};
}

void ControlServer::restart(std::string const& name, std::string const& requester, json const& id) {
    bool const known = hooks_.restart(name, [this, requester, id](std::string const& error) {
        reply(requester, error.empty() ? json{{key::kOk, true}} : failureAnswer(error), id);
    });
    if (!known) reply(requester, failureAnswer("no module named " + name), id);
}

void ControlServer::reply(std::string const& to, json body, json const& id) {
    if (!id.is_null()) body[key::kId] = id;
    send_(to, control::messageText(body));
}

void ControlServer::ignored(std::string const& sender, char const* why) const {
    if (debug_ > 0) hostLog(kHostDebug, "ignored a control message from ", sender, ": ", why);
}

}  // namespace nxahost
