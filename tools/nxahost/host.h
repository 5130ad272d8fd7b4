// The reference host daemon: one NXAClient driven by a single-threaded polling
// loop, with the host's own bus connection and signal handling.
#pragma once

#include <nxaclient.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/vlpbus_client.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control.h"
#include "host_signals.h"
#include "options.h"
#include "package_store.h"
#include "program_supervisor.h"
#include "serve_failures.h"
#include "service_notify.h"
#include "web_console.h"

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
    // host.cc: starting, reloading, stopping.
    void startModules();
    void installAtStart();
    void installStaged();
    unsigned long long packageLimit() const;
    void asHostOnly(std::function<void()> const& step);
    void reportModules();
    void reload();
    std::string reloadProblem();
    void replaceModules();
    void stopModules();
    void reactToSignals();
    void printRunLog();
    std::string statusText() const;
    bool restartModule(std::string const& name, ProgramSupervisor::RestartDone done);
    void advanceRestarts();
    void startWebConsole();
    int modulePort(std::string const& name);

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
    HostSignals signals_;
    // Before the facade: it installs from the store's folder.
    PackageStore store_;
    NXAClient client_;
    VLPBusClient bus_;
    ProgramSupervisor supervisor_;
    HostControl control_;
    ServiceNotifier notifier_;
    // The browser console; null when it is off.
    std::unique_ptr<WebConsole> web_;
    FdSet rd_;
    FdSet wr_;
    bool stopping_ = false;
    ServeFailures failures_;
    Clock::time_point lastBusAttempt_;
    // Module bus connections are checked at most once a second, and looked
    // after every second while one is down.
    bool moduleBusDown_ = false;
    Clock::time_point lastModuleBusCheck_;
    unsigned long refusedSeen_ = 0;
    Clock::time_point lastRefusalReport_;
};

// Ends a forked copy of the host after an exception: writes "[ERROR] nxahost: "
// and the text to the copy's standard output, and exits with status 1 at once.
[[noreturn]] void endForkedCopy(char const* what);
