// The device's side of deployment from the centre: the package the centre
// wants, brought onto the device and handed to the host's reload, each step
// reported back.
#pragma once

#include <vlplatform/fd_set.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "clock.h"
#include "desired_package.h"
#include "fleet_link.h"
#include "package_fetch.h"

namespace nxahost {

// The topics on the device's broker, which the fleet bridge carries to and
// from devices/<id>/ at the centre.
namespace fleet {
// In, retained at the centre: the desired package (DesiredPackage's JSON).
inline constexpr char kDesiredTopic[] = "nxa/fleet/desired";
// Out, retained: the latest deployment step (FleetAgent).
inline constexpr char kStateTopic[] = "nxa/fleet/state";
// Out, retained: whether the host is online, and what it runs.
inline constexpr char kPresenceTopic[] = "nxa/fleet/presence";
}  // namespace fleet

// Follows the desired package. A desired package that is not valid is
// refused (step "failed" with the reason); one whose SHA-256 is the running
// package's needs nothing (step "running"); one already handled, whatever
// came of it, is not taken again (the centre's retained message comes back
// on every connection). Otherwise it is fetched into `folder` (steps
// "queued", "downloading" with its percent in tens, "failed" when the
// download fails), moved to `delivered` (with its signature beside it) and
// handed to `install` (step "installing", then "failed" with the reason the
// host gives, or "probation"). A newer desired package replaces one still
// being fetched. The host reports the later steps ("running", "rolled back")
// through report(). Each step goes out retained on fleet::kStateTopic as
// {"deployment", "version", "sha256", "step", "percent"?, "reason"?}.
class FleetAgent {
public:
    struct Setup {
        FleetLink::Setup link;
        // Where packages are downloaded, and the file a package is delivered
        // to (where the host's reload takes it from).
        std::string folder;
        std::string delivered;
        // As DownloadRequest's caFile.
        std::string caFile;
        // The largest package taken.
        std::uint64_t mostBytes = 0;
    };
    struct Hooks {
        // The SHA-256 of the package the host runs (lowercase hex), empty when none.
        std::function<std::string()> runningSha256;
        // Installs the delivered package now: empty, or why it was refused.
        std::function<std::string()> install;
    };

    // link.subscriptions gets the desired topic added.
    FleetAgent(Setup setup, Hooks hooks, Clock const& clock, Jitter& jitter);
    ~FleetAgent();

    int addFds(FdSet& rd, FdSet& wr, int timeoutMs) const;
    void serve(FdSet const& rd, FdSet const& wr);

    // Reports `step` (with `reason` when not empty) of the deployment
    // installed last; nothing when none was.
    void report(std::string const& step, std::string const& reason = "");
    // The retained presence, published now and on every connection.
    void setPresence(std::string const& presence);
    FleetLink& link() { return *link_; }

private:
    void desired(std::string const& payload);
    void followFetch();
    void deliverAndInstall();
    void publishStep(DesiredPackage const& wanted, std::string const& step, std::string const& reason = "",
                     int percent = -1);

    Setup setup_;
    Hooks hooks_;
    Clock const& clock_;
    Jitter& jitter_;
    std::unique_ptr<FleetLink> link_;
    std::unique_ptr<PackageFetch> fetch_;
    int reportedPercent_ = -1;
    // The SHA-256 of the last desired package taken, and the one installed last.
    std::string handled_;
    std::unique_ptr<DesiredPackage> installed_;
};

}  // namespace nxahost
