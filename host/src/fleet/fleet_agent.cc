#include <nxahost/fleet_agent.h>
#include <nxahost/log.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace nxahost {

FleetAgent::FleetAgent(Setup setup, Hooks hooks, Clock const& clock, Jitter& jitter)
    : setup_(std::move(setup)), hooks_(std::move(hooks)), clock_(clock), jitter_(jitter) {
    setup_.link.subscriptions.push_back(fleet::kDesiredTopic);
    link_ = std::make_unique<FleetLink>(setup_.link,
                                        [this](std::string const& topic, std::string const& payload) {
                                            if (topic == fleet::kDesiredTopic) desired(payload);
                                        });
}

FleetAgent::~FleetAgent() = default;

int FleetAgent::addFds(FdSet& rd, FdSet& wr, int timeoutMs) const {
    int const timeout = link_->addFds(rd, wr, timeoutMs);
    return fetch_ ? fetch_->addFds(rd, wr, timeout) : timeout;
}

void FleetAgent::serve(FdSet const& rd, FdSet const& wr) {
    link_->serve(rd, wr);
    if (!fetch_) return;
    fetch_->serve(rd, wr);
    followFetch();
}

void FleetAgent::desired(std::string const& payload) {
    // An empty retained message clears the desire: nothing to do.
    if (payload.empty()) return;
    std::string why;
    std::optional<DesiredPackage> const wanted = DesiredPackage::parse(payload, setup_.mostBytes, why);
    if (!wanted) {
        hostLog(kHostWarning, "fleet: desired package refused: ", why);
        DesiredPackage unnamed;
        return publishStep(unnamed, "failed", "refused: " + why);
    }
    if (wanted->sha256 == handled_) return;
    handled_ = wanted->sha256;
    if (hooks_.runningSha256() == wanted->sha256) {
        fetch_.reset();
        return publishStep(*wanted, "running");
    }
    hostLog(kHostInfo, "fleet: fetching package ", wanted->version, " of deployment ", wanted->deployment);
    publishStep(*wanted, "queued");
    reportedPercent_ = -1;
    try {
        fetch_ = std::make_unique<PackageFetch>(*wanted, setup_.folder, setup_.caFile, clock_, jitter_);
    } catch (std::exception const& e) {
        fetch_.reset();
        return publishStep(*wanted, "failed", e.what());
    }
    followFetch();
}

void FleetAgent::followFetch() {
    DesiredPackage const wanted = fetch_->wanted();
    switch (fetch_->state()) {
        case PackageFetch::State::fetching: {
            int const tens = fetch_->percent() / 10 * 10;
            if (tens != reportedPercent_) {
                reportedPercent_ = tens;
                publishStep(wanted, "downloading", fetch_->reason(), tens);
            }
            return;
        }
        case PackageFetch::State::failed:
            hostLog(kHostError, "fleet: package ", wanted.version, " not fetched: ", fetch_->reason());
            publishStep(wanted, "failed", fetch_->reason());
            fetch_.reset();
            return;
        case PackageFetch::State::fetched:
            deliverAndInstall();
            return;
    }
}

// The package and its signature take the place of a delivered package; the
// host's reload checks and installs them as any other.
void FleetAgent::deliverAndInstall() {
    std::unique_ptr<PackageFetch> const fetched = std::move(fetch_);
    DesiredPackage const& wanted = fetched->wanted();
    std::string const signature = setup_.delivered + ".minisig";
    if (rename(fetched->signaturePath().c_str(), signature.c_str()) != 0 ||
        rename(fetched->packagePath().c_str(), setup_.delivered.c_str()) != 0)
        return publishStep(wanted, "failed",
                           "cannot deliver the package: " + std::string(std::strerror(errno)));
    publishStep(wanted, "installing");
    installed_ = std::make_unique<DesiredPackage>(wanted);
    std::string const refused = hooks_.install();
    if (!refused.empty()) return publishStep(wanted, "failed", refused);
    publishStep(wanted, "probation");
}

void FleetAgent::report(std::string const& step, std::string const& reason) {
    if (installed_) publishStep(*installed_, step, reason);
}

void FleetAgent::setPresence(std::string const& presence) {
    link_->publishRetained(fleet::kPresenceTopic, presence);
}

void FleetAgent::publishStep(DesiredPackage const& wanted, std::string const& step, std::string const& reason,
                             int percent) {
    nlohmann::json state{{"deployment", wanted.deployment},
                         {"version", wanted.version},
                         {"sha256", wanted.sha256},
                         {"step", step}};
    if (percent >= 0) state["percent"] = percent;
    if (!reason.empty()) state["reason"] = reason;
    // A reason from outside (a path, a server's words) may not be UTF-8.
    link_->publishRetained(fleet::kStateTopic,
                           state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace nxahost
