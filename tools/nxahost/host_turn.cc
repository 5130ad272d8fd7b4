// One turn of the host's loop: wait, serve the modules, the host's own bus and
// the bus connections that came back, report, react to signals, restart.
#include <nxahost/log.h>
#include <nxahost/lost_clients.h>
#include <sys/resource.h>
#include <vlplatform/net.h>

#include <algorithm>
#include <cerrno>

#include "host.h"

using namespace nxahost;

namespace {

constexpr std::chrono::milliseconds kReconnectEvery{1000};
// Connections refused for lack of descriptors are summed up at most this often.
constexpr std::chrono::seconds kRefusalReportEvery{1};

}  // namespace

void Host::turn() {
    if (!waitForEvents()) return;
    serveModules();
    serveWebConsole();
    serveOwnBus();
    serveFleet();
    auto const now = Clock::now();
    keepOwnBusConnected(now);
    keepModuleBusesConnected(now);
    reportRefusedConnections(now);
    // A signal's arrival makes the pipe readable; only then is it worth reading.
    if (rd_.isSet(signals_.fd())) reactToSignals();
    if (supervisor_.reportingEnds() && supervisor_.reportDrainedEnds()) notifier_.status(statusText());
    auto const due = supervisor_.nextDue();
    if (due && *due <= clock_.now()) advanceRestarts();
    if (!rollbackReason_.empty()) rollBack();
    auto const probation = package_.probationEnd();
    if (probation && *probation <= clock_.now() && package_.endProbationIfDue() && fleet_)
        fleet_->report("running");
    notifier_.turned();
}

bool Host::waitForEvents() {
    rd_.clear();
    wr_.clear();
    client_.addFdsCached(rd_, wr_);
    rd_.add(signals_.fd());
    rd_.add(bus_.fd());
    int timeout = waitTimeoutMs(Clock::now());
    if (web_) timeout = web_->addFds(rd_, wr_, timeout);
    if (fleet_) timeout = fleet_->addFds(rd_, wr_, timeout);
    if (waitFds(rd_, wr_, timeout) >= 0) return true;
    if (errno == EINTR) {
        // The console's turn ends with nothing ready.
        rd_.clear();
        wr_.clear();
        serveWebConsole();
        reactToSignals();
        return false;
    }
    throw IOException(errno, "cannot wait for descriptors");
}

// An idle host waits without a time-out; it wakes up by itself only for work
// it has pending: a bus connection to make again, refused connections to
// report, a program to start again.
int Host::waitTimeoutMs(Clock::time_point now) const {
    long long timeout = -1;
    auto sooner = [&timeout](long long ms) { timeout = timeout < 0 ? ms : std::min(timeout, ms); };
    if (!bus_.isConnected() || moduleBusDown_) sooner(kReconnectEvery.count());
    // An ended program is reported once its output is read, a second after its end at the latest.
    if (supervisor_.reportingEnds()) sooner(100);
    if (refusedConnections() != refusedSeen_) sooner(kReconnectEvery.count());
    for (auto due : {supervisor_.nextDue(), notifier_.nextWatchdog(), package_.probationEnd()}) {
        if (due)
            sooner(std::max<long long>(0, std::chrono::ceil<std::chrono::milliseconds>(*due - now).count()));
    }
    return static_cast<int>(timeout);
}

void Host::serveModules() {
    try {
        client_.handleReady(rd_, wr_);
        failures_.served(Clock::now());
    } catch (std::exception const& e) {
        if (dropLostClient(client_, e)) return;
        // The error that ends the host leaves run() and is reported by the caller.
        if (failures_.failed(e, Clock::now())) throw;
    }
}

// The console's errors stay with the connection they came from (see
// WebConsole); what escapes is counted like the modules' errors.
void Host::serveWebConsole() {
    if (!web_) return;
    try {
        web_->serve(rd_, wr_);
    } catch (std::exception const& e) {
        if (failures_.failed(e, Clock::now())) throw;
    }
}

void Host::serveOwnBus() {
    int const fd = bus_.fd();
    if (fd < 0 || !rd_.isSet(fd)) return;
    if (!bus_.read()) {
        hostLog(kHostWarning, "the bus broker has gone; reconnecting");
        // The modules' connections went with it.
        moduleBusDown_ = true;
    }
    while (std::unique_ptr<MessageBase> msg = bus_.getMessage()) {
        auto const* routed = dynamic_cast<RouterMessage const*>(msg.get());
        if (routed != nullptr && !control_.handle(*routed)) client_.handle(*routed);
    }
}

void Host::keepOwnBusConnected(Clock::time_point now) {
    if (bus_.isConnected()) return;
    if (now - lastBusAttempt_ < kReconnectEvery) return;
    lastBusAttempt_ = now;
    bus_.connectToServer();
    if (bus_.isConnected()) hostLog(kHostInfo, "bus connection established as ", options_.busName);
}

// Once a second at most: every module whose bus connection is down tries
// again, until the first attempt that fails (the broker is still away).
void Host::keepModuleBusesConnected(Clock::time_point now) {
    if (now - lastModuleBusCheck_ < kReconnectEvery) return;
    lastModuleBusCheck_ = now;
    bool down = false;
    bool brokerAway = false;
    for (NXAClient::Module* module : client_.modules.getModules()) {
        if (module->busConnected()) continue;
        if (!brokerAway && module->reconnectBus()) {
            hostLog(kHostInfo, "module ", module->getName(), ": bus connection established again");
            continue;
        }
        brokerAway = true;
        down = true;
    }
    moduleBusDown_ = down;
}

// The library is told of a refused connection as an accept that failed; the
// reason, and how many, are said here, at most once a second.
void Host::reportRefusedConnections(Clock::time_point now) {
    unsigned long const refused = refusedConnections();
    if (refused == refusedSeen_) return;
    if (now - lastRefusalReport_ < kRefusalReportEvery) return;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    unsigned long const count = refused - refusedSeen_;
    hostLog(kHostWarning, "refused ", count, " connection", count == 1 ? "" : "s",
            ": out of descriptors (the limit is ", limit.rlim_cur, ")");
    refusedSeen_ = refused;
    lastRefusalReport_ = now;
}
