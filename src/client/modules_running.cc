// The running side of the registry: starting and stopping all children, and
// fanning the host's polling calls and bus messages out to every module in
// configuration order. Nothing here catches: the first exception ends the
// fan-out and reaches the host.
#include <unistd.h>

#include <cerrno>
#include <set>

#include "nxaclient.h"
#include "output_messages.h"
#include "ready_index.h"
#include "trace.h"

using nxa::trace::kModules;

void NXAClient::Modules::run() {
    NXA_DEBUG(kModules, "pid=", getpid());
    std::set<int> ended;
    proc.waitChildren(false, &ended);
    if (!proc.children().empty()) throw IOException(EBUSY, "NXA process(es) still running");
    NXA_DEBUG(kModules, "OK, no childs running");  // "childs" is the established wording
    for (auto const& module : list) module->run();
    NXA_DEBUG(kModules, "pid=", getpid(), " done");
}

void NXAClient::Modules::stop() {
    NXA_DEBUG(kModules, "pid=", getpid());
    forgetReadyIndex();
    for (auto& module : list) module.reset();
    list.clear();
    byNameMade = false;
    NXA_DEBUG(kModules, "pid=", getpid(), " done");
}

NXAClient::Modules::~Modules() {
    NXA_DEBUG(kModules, "pid=", getpid());
    stop();
    NXA_DEBUG(kModules, "pid=", getpid(), " done");
}

NXAClient::Module* NXAClient::Modules::find(std::string const& name) const {
    if (!byNameMade) {
        byName.clear();
        for (auto const& module : list) byName.emplace(module->getName(), module.get());
        byNameMade = true;
    }
    auto const found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

std::vector<NXAClient::Module*> NXAClient::Modules::getModules() const {
    std::vector<Module*> all;
    all.reserve(list.size());
    for (auto const& module : list) all.push_back(module.get());
    return all;
}

void NXAClient::Modules::stopPrograms() {
    proc.stopAll();
}

void NXAClient::Modules::addFds(FdSet& rd, FdSet& wr) const {
    for (auto const& module : list) module->addFds(rd, wr);
}

void NXAClient::Modules::handleInput(FdSet const& rd) const {
    for (auto const& module : list) module->handleInput(rd);
}

void NXAClient::Modules::handleOutput(FdSet const& wr) const {
    for (auto const& module : list) module->handleOutput(wr);
}

void NXAClient::Modules::handleInput(SystemMessage const& msg) const {
    for (auto const& module : list) module->handleInput(msg);
}

bool NXAClient::Modules::handle(RouterMessage const& msg) const {
    auto const* sm = dynamic_cast<SystemMessage const*>(msg.message());
    if (sm == nullptr) return false;
    NXA_DEBUG(kModules, "received ", *sm, " from ", msg.sender());
    if (sm->kind() == nxa::kTextKind) {
        handleInput(*sm);
        return true;
    }
    if (sm->kind() != nxa::kCommandKind) return false;
    if (sm->text() == nxa::kStartOutput) {
        addPeer(msg.sender());
        return true;
    }
    if (sm->text() == nxa::kStopOutput) {
        removePeer(msg.sender());
        return true;
    }
    return false;
}

// Each module subscribes its own bus peers; the registry only records that it
// saw the request.
void NXAClient::Modules::addPeer(std::string const& name) const {
    NXA_DEBUG(kModules, name);
}

void NXAClient::Modules::removePeer(std::string const& name) const {
    NXA_DEBUG(kModules, name);
}

void NXAClient::Modules::getRunLog(std::string& out) const {
    for (auto const& module : list) module->getRunLog(out);
}
