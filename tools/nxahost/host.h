// The reference host daemon: one NXAClient driven by a single-threaded polling
// loop, with the host kit's parts around it: program supervision, the safe
// reload, the operator's controls, the browser console, the service manager.
#pragma once

#include <nxaclient.h>
#include <nxahost/clock.h>
#include <nxahost/control_server.h>
#include <nxahost/facade_programs.h>
#include <nxahost/fleet_agent.h>
#include <nxahost/host_signals.h>
#include <nxahost/module_ports.h>
#include <nxahost/program_supervisor.h>
#include <nxahost/safe_reload.h>
#include <nxahost/serve_failures.h>
#include <nxahost/service_notifier.h>
#include <nxahost/web_console.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/vlpbus_client.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "options.h"

// Owns the library's facade and runs its loop until INT or TERM. Exceptions of
// configuring and starting the modules leave run() (the caller reports them and
// ends with status 1; the destructor stops the children), and so does an error
// that fails every turn for ServeFailures::kGiveUpAfter. An exception that
// comes out of a module start in the forked child's copy of this process ends
// that copy at once with status 1, before anything of the host is unwound.
class Host {
public:
    using Clock = std::chrono::steady_clock;

    explicit Host(HostOptions options);

    // Installs the package, starts the modules and serves them until a stop
    // signal; returns the exit status (0).
    int run();

    // The host's own bus connection accepts messages up to this size: a text
    // sent to it goes to every module's consumers.
    static constexpr unsigned kMaxBusMessage = 64 * 1024;

private:
    // host.cc: starting, reloading, stopping, and what the kit's parts ask.
    void startModules();
    void asHostOnly(std::function<void()> const& step);
    void reportModules();
    std::string reload(bool allowDowngrade = false);
    void replaceModules();
    void rollBack();
    void announcePackageEvent(nlohmann::json event);
    void stopModules();
    void reactToSignals();
    void printRunLog();
    std::string statusText() const;
    std::vector<nxahost::ModulePort> runningPorts() const;
    nlohmann::json status();
    bool restartModule(std::string const& name, nxahost::ProgramSupervisor::RestartDone done);
    void advanceRestarts();
    void startWebConsole();

    // host_fleet.cc: following the package the fleet's centre wants.
    void startFleet();
    void serveFleet();
    void sayPresence(char const* state);
    void stopFleet();
    std::string runningSha256() const;

    // host_turn.cc: one turn of the loop.
    void turn();
    bool waitForEvents();
    int waitTimeoutMs(Clock::time_point now) const;
    void serveModules();
    void serveOwnBus();
    void serveWebConsole();
    void keepOwnBusConnected(Clock::time_point now);
    void keepModuleBusesConnected(Clock::time_point now);
    void reportRefusedConnections(Clock::time_point now);

    HostOptions options_;
    pid_t const hostPid_;
    nxahost::HostSignals signals_;
    nxahost::SteadyClock clock_;
    // Before the facade: the library installs from its folder.
    nxahost::SafeReload package_;
    NXAClient client_;
    VLPBusClient bus_;
    nxahost::RandomJitter jitter_;
    nxahost::FacadePrograms programs_;
    nxahost::ProgramSupervisor supervisor_;
    nxahost::ControlServer control_;
    nxahost::ServiceNotifier notifier_;
    // The browser console; null when it is off.
    std::unique_ptr<nxahost::WebConsole> web_;
    // The fleet's desired package followed; null without --fleet.
    std::unique_ptr<nxahost::FleetAgent> fleet_;
    FdSet rd_;
    FdSet wr_;
    bool stopping_ = false;
    nxahost::ServeFailures failures_;
    Clock::time_point lastBusAttempt_;
    // Module bus connections are checked at most once a second, and looked
    // after every second while one is down.
    bool moduleBusDown_ = false;
    Clock::time_point lastModuleBusCheck_;
    unsigned long refusedSeen_ = 0;
    Clock::time_point lastRefusalReport_;
    // Why the package on probation is to be rolled back, once a supervisor
    // call has said so; done after that call, in the turn.
    std::string rollbackReason_;
};

// What the command line asks that cannot be done: the host refuses to start
// with exit status 2, as for bad usage.
class UnusableSetup : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The keys of the command line's folder, each file that is no key named once.
// Throws UnusableSetup when the folder was named on the command line and
// holds no usable key.
nxahost::TrustedKeys loadTrustedKeys(HostOptions const& options);

// Ends a forked copy of the host after an exception: writes "[ERROR] nxahost: "
// and the text to the copy's standard output, and exits with status 1 at once.
[[noreturn]] void endForkedCopy(char const* what);
