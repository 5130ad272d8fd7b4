#include "host.h"

#include <sys/resource.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>
#include <vlplatform/net.h>

#include <cerrno>
#include <exception>
#include <string>

#include "host_log.h"
#include "module_groups.h"
#include "module_ports.h"

namespace {

constexpr unsigned short kBusPort = 20010;
constexpr int kReconnectMs = 1000;
// Connections refused for lack of descriptors are summed up at most this often.
constexpr std::chrono::seconds kRefusalReportEvery{1};
// How long a reload waits for the stopped module programs' groups to go.
constexpr std::chrono::milliseconds kGroupsGoneLimit{3000};

}  // namespace

[[noreturn]] void endForkedCopy(char const* what) {
    std::string line = std::string(kHostError) + "nxahost: " + what + "\n";
    ssize_t ignored = write(1, line.data(), line.size());
    (void)ignored;
    _exit(1);
}

Host::Host(HostOptions options)
    : options_(std::move(options)),
      hostPid_(getpid()),
      client_(options_.packageDir.c_str(), options_.modulesDir.c_str(), options_.workDir.c_str(), 0,
              options_.port, options_.maxModules, "", options_.debug),
      bus_("", kBusPort, options_.busName) {
    noteDescriptorOpened(signals_.fd());
    setAsideAcceptReserve();
    bus_.setup();
    lastBusAttempt_ = std::chrono::steady_clock::now();
}

int Host::run() {
    requireFreePorts(options_.modules, options_.maxModules, options_.port);
    client_.modules.configure(options_.modules);
    startModules();
    reportModules();
    while (!stopping_) turn();
    hostLog(kHostInfo, "stopping");
    client_.stop();
    return 0;
}

// The modules' children are forked inside run(): an exception thrown in a
// child's copy must end that copy here, before the copy unwinds into the
// host's own objects (whose destructors would stop the real host's children).
void Host::startModules() {
    try {
        client_.run();
    } catch (std::exception const& e) {
        if (getpid() != hostPid_) endForkedCopy(e.what());
        throw;
    } catch (...) {
        if (getpid() != hostPid_) endForkedCopy("unknown exception");
        throw;
    }
}

void Host::reportModules() {
    std::vector<ModulePort> const running =
        runningModulePorts(options_.modules, options_.maxModules, options_.port, client_.getModulesInstalled());
    if (running.empty()) hostLog(kHostWarning, "no module is running");
    for (ModulePort const& m : running) {
        if (m.port == 0) {
            // Port numbers wrap after 65535, and binding port 0 takes any free port.
            hostLog(kHostWarning, "module ", m.name,
                    " runs on a port the system chose: the port numbers wrapped past 65535");
            continue;
        }
        hostLog(kHostInfo, "module ", m.name, " runs on port ", m.port, " (attach: nc 127.0.0.1 ", m.port, ")");
    }
    if (bus_.isConnected()) hostLog(kHostInfo, "bus name ", options_.busName);
}

void Host::turn() {
    if (!waitForEvents()) return;
    serveModules();
    serveOwnBus();
    keepOwnBusConnected();
    reportRefusedConnections();
    // A signal's arrival makes the pipe readable; only then is it worth reading.
    if (rd_.isSet(signals_.fd())) reactToSignals();
}

bool Host::waitForEvents() {
    rd_.clear();
    wr_.clear();
    client_.addFds(rd_, wr_);
    rd_.add(signals_.fd());
    rd_.add(bus_.fd());
    // Woken to retry the bus, or to report refused connections not yet told.
    bool const idle = bus_.isConnected() && refusedConnections() == refusedSeen_;
    int const timeout = idle ? -1 : kReconnectMs;
    if (waitFds(rd_, wr_, timeout) >= 0) return true;
    if (errno == EINTR) {
        reactToSignals();
        return false;
    }
    throw IOException(errno, "cannot wait for descriptors");
}

void Host::serveModules() {
    try {
        client_.handleInput(rd_);
        client_.handleOutput(wr_);
        failures_.served(std::chrono::steady_clock::now());
    } catch (std::exception const& e) {
        // The error that ends the host leaves run() and is reported by the caller.
        if (failures_.failed(e, std::chrono::steady_clock::now())) throw;
    }
}

void Host::serveOwnBus() {
    int const fd = bus_.fd();
    if (fd < 0 || !rd_.isSet(fd)) return;
    if (!bus_.read()) hostLog(kHostWarning, "the bus broker has gone; reconnecting");
    while (std::unique_ptr<MessageBase> msg = bus_.getMessage()) {
        if (auto const* routed = dynamic_cast<RouterMessage const*>(msg.get())) client_.handle(*routed);
    }
}

void Host::keepOwnBusConnected() {
    if (bus_.isConnected()) return;
    auto const now = std::chrono::steady_clock::now();
    if (now - lastBusAttempt_ < std::chrono::milliseconds(kReconnectMs)) return;
    lastBusAttempt_ = now;
    bus_.connectToServer();
    if (bus_.isConnected()) hostLog(kHostInfo, "bus connection established as ", options_.busName);
}

// The library is told of a refused connection as an accept that failed; the
// reason, and how many, are said here, at most once a second.
void Host::reportRefusedConnections() {
    unsigned long const refused = refusedConnections();
    if (refused == refusedSeen_) return;
    auto const now = std::chrono::steady_clock::now();
    if (now - lastRefusalReport_ < kRefusalReportEvery) return;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    unsigned long const count = refused - refusedSeen_;
    hostLog(kHostWarning, "refused ", count, " connection", count == 1 ? "" : "s",
            ": out of descriptors (the limit is ", limit.rlim_cur, ")");
    refusedSeen_ = refused;
    lastRefusalReport_ = now;
}

void Host::reactToSignals() {
    unsigned const events = signals_.take();
    if (events & HostSignals::kChildEnded) ended_.report();
    if (events & HostSignals::kDumpLog) printRunLog();
    if (events & HostSignals::kStop) {
        stopping_ = true;
    } else if (events & HostSignals::kReload) {
        reload();
    }
}

void Host::printRunLog() {
    std::string log;
    client_.getRunLog(log);
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    std::cout << kHostInfo << "nxahost: run log, " << log.size() << " bytes:\n" << log;
    if (!log.empty() && log.back() != '\n') std::cout << '\n';
    std::cout << kHostInfo << "nxahost: end of run log" << std::endl;
}

void Host::reload() {
    hostLog(kHostInfo, "reloading");
    std::set<pid_t> const groups = childProcessGroups();
    client_.stop();
    // The new modules bind the same ports.
    awaitProcessGroupsGone(groups, kGroupsGoneLimit);
    requireFreePorts(options_.modules, options_.maxModules, options_.port);
    client_.modules.configure(options_.modules);
    startModules();
    reportModules();
}
