// The reference host daemon: one NXAClient driven by a single-threaded polling
// loop, with the host's own bus connection and signal handling.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include <nxaclient.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/vlpbus_client.h>

#include "ended_children.h"
#include "host_signals.h"
#include "options.h"
#include "serve_failures.h"

// Owns the library's facade and runs its loop until INT or TERM. Exceptions of
// configuring and starting the modules leave run() (the caller reports them and
// ends with status 1; the destructor stops the children), and so does an error
// that fails every turn for ServeFailures::kGiveUpAfter. An exception that
// comes out of a module start in the forked child's copy of this process ends
// that copy at once with status 1, before anything of the host is unwound.
class Host {
public:
    explicit Host(HostOptions options);

    // Installs the package, starts the modules and serves them until a stop
    // signal; returns the exit status (0).
    int run();

private:
    void startModules();
    void reportModules();
    void turn();
    bool waitForEvents();
    void serveModules();
    void serveOwnBus();
    void keepOwnBusConnected();
    void reportRefusedConnections();
    void reactToSignals();
    void printRunLog();
    void reload();

    HostOptions options_;
    pid_t const hostPid_;
    HostSignals signals_;
    NXAClient client_;
    VLPBusClient bus_;
    FdSet rd_;
    FdSet wr_;
    EndedChildren ended_;
    bool stopping_ = false;
    ServeFailures failures_;
    std::chrono::steady_clock::time_point lastBusAttempt_;
    unsigned long refusedSeen_ = 0;
    std::chrono::steady_clock::time_point lastRefusalReport_;
};

// Ends a forked copy of the host after an exception: writes "[ERROR] nxahost: "
// and the text to the copy's standard output, and exits with status 1 at once.
[[noreturn]] void endForkedCopy(char const* what);
