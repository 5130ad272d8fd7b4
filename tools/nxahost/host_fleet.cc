// The host's side of deployment from the fleet's centre: the kit's
// FleetAgent on the local broker, the host's reload as its install, the
// host's presence and the later steps of a deployment (probation passed,
// rolled back) reported through it.
#include <nxahost/log.h>
#include <nxahost/package_fetch.h>
#include <vlplatform/zipper.h>

#include <nlohmann/json.hpp>

#include "host.h"

using namespace nxahost;

void Host::startFleet() {
    if (!options_.fleet) return;
    FleetAgent::Setup setup;
    setup.link.port = kBusPort;
    setup.link.clientId = options_.busName + "-fleet";
    setup.link.presenceTopic = fleet::kPresenceTopic;
    setup.link.will = nlohmann::json{{"state", "offline"}}.dump();
    setup.folder = options_.packageDir + "/.nxahost/fleet";
    setup.delivered = package_.delivered();
    setup.caFile = options_.caFile;
    setup.mostBytes = zipper::unpackBudget(options_.packageDir);
    FleetAgent::Hooks hooks;
    hooks.runningSha256 = [this] { return runningSha256(); };
    hooks.install = [this] { return reload(); };
    fleet_ = std::make_unique<FleetAgent>(setup, hooks, clock_, jitter_);
    sayPresence("online");
    hostLog(kHostInfo, "fleet: following the desired package on ", fleet::kDesiredTopic);
}

void Host::serveFleet() {
    if (!fleet_) return;
    try {
        fleet_->serve(rd_, wr_);
    } catch (std::exception const& e) {
        if (failures_.failed(e, Clock::now())) throw;
    }
}

// Whether the host runs, its version, the package's and how its modules are.
void Host::sayPresence(char const* state) {
    if (!fleet_) return;
    PackageRecord const& record = package_.record();
    std::size_t const all = client_.modules.getModules().size();
    std::size_t const restarting = supervisor_.restarting();
    std::size_t const ended = supervisor_.ended();
    nlohmann::json presence{
        {"state", state},
        {"host", NXA_HOST_VERSION},
        {"package", record.installed ? record.installed->version : ""},
        {"modules", {{"running", all - restarting - ended}, {"restarting", restarting}, {"ended", ended}}}};
    fleet_->setPresence(presence.dump());
}

void Host::stopFleet() {
    if (!fleet_) return;
    sayPresence("stopped");
    fleet_->link().close();
}

std::string Host::runningSha256() const {
    return fileSha256(package_.runningCopy());
}
