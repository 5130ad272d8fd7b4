#include "host.h"

#include <nxahost/control_protocol.h>
#include <nxahost/device.h>
#include <nxahost/log.h>
#include <nxahost/module_status.h>
#include <nxahost/process_groups.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>
#include <vlplatform/net.h>
#include <vlplatform/zipper.h>

#include <exception>
#include <set>
#include <stdexcept>
#include <string>

using namespace nxahost;

namespace {

// How a reload waits for the stopped module programs' groups to go.
constexpr std::chrono::milliseconds kGroupsGoneLimit{3000};
// Room for the topic and properties besides a message's text.
constexpr unsigned kBusPacketRoom = 4096;

// The configured names the registry keeps: the first maxModules.
std::vector<std::string> keptModules(HostOptions const& options) {
    std::size_t const count = std::min<std::size_t>(options.modules.size(), options.maxModules);
    return std::vector<std::string>(options.modules.begin(), options.modules.begin() + count);
}

SafeReload::Setup reloadSetup(HostOptions const& options) {
    SafeReload::Setup setup;
    setup.packageDir = options.packageDir;
    setup.modules = keptModules(options);
    setup.keys = loadTrustedKeys(options);
    setup.keysDir = options.trustedKeys;
    setup.probation = std::chrono::seconds(options.probationSeconds);
    setup.probationFailures = options.probationFailures;
    return setup;
}

}  // namespace

TrustedKeys loadTrustedKeys(HostOptions const& options) {
    TrustedKeys keys = TrustedKeys::load(options.trustedKeys);
    for (std::string const& problem : keys.problems()) hostLog(kHostWarning, "not a trusted key: ", problem);
    if (keys.empty() && options.trustedKeysGiven)
        throw UnusableSetup("--trusted-keys: no usable minisign public key in " + options.trustedKeys);
    if (keys.empty()) {
        hostLog(kHostWarning, "packages are not checked: no trusted key in ", options.trustedKeys,
                " (--trusted-keys)");
    } else {
        hostLog(kHostInfo, "packages are checked: ", keys.size(), " trusted key", keys.size() == 1 ? "" : "s",
                " in ", options.trustedKeys);
    }
    return keys;
}

[[noreturn]] void endForkedCopy(char const* what) {
    std::string line = std::string(kHostError) + "nxahost: " + what + "\n";
    ssize_t ignored = write(1, line.data(), line.size());
    (void)ignored;
    _exit(1);
}

Host::Host(HostOptions options)
    : options_(std::move(options)),
      hostPid_(getpid()),
      package_(reloadSetup(options_), clock_),
      client_(package_.installDir().c_str(), options_.modulesDir.c_str(), options_.workDir.c_str(), 0,
              options_.port, options_.maxModules, "", options_.debug),
      bus_("", kBusPort, options_.busName),
      programs_(client_),
      supervisor_(programs_, options_.restart, clock_, jitter_, hostPid_),
      control_(client_,
               ControlServer::Hooks{[this] { return status(); },
                                    [this](std::string const& module, ProgramSupervisor::RestartDone done) {
                                        return restartModule(module, std::move(done));
                                    },
                                    [this](bool allowDowngrade) { return reload(allowDowngrade); },
                                    [this] { return package_.describe(); }},
               ControlServer::overBus(bus_, options_.busName), options_.debug),
      notifier_(clock_) {
    noteDescriptorOpened(signals_.fd());
    setAsideAcceptReserve();
    setAcceptedConnectionTimeout(options_.clientTimeout);
    zipper::setUnpackBudget(options_.unpackBudgetMiB << 20);
    bus_.setMaxPacketBytes(kMaxBusMessage + kBusPacketRoom);
    bus_.setup();
    lastBusAttempt_ = Clock::now();
    lastModuleBusCheck_ = lastBusAttempt_;
    // Said now, acted on after the supervisor's call, in the turn.
    supervisor_.onFailure([this](std::string const& module, std::string const& how) {
        std::string const reason = package_.programFailed(module, how);
        if (!reason.empty() && rollbackReason_.empty()) rollbackReason_ = reason;
    });
}

int Host::run() {
    requireFreePorts(options_.modules, options_.maxModules, options_.port);
    startWebConsole();
    client_.modules.configure(options_.modules);
    // The library installs the host's copy of the package, taken once.
    bool const installs = !client_.modules.getModules().empty();
    if (installs) package_.takeForStart();
    startModules();
    if (installs) package_.started();
    reportModules();
    // Said once the modules run, after their ports: it is no module's.
    if (web_)
        hostLog(kHostInfo, "browser console on http://", options_.webAddress, ":", options_.webPort, "/");
    startFleet();
    notifier_.ready(statusText());
    while (!stopping_) turn();
    hostLog(kHostInfo, "stopping");
    supervisor_.abandonRestarts("the host is stopping");
    stopModules();
    stopFleet();
    return 0;
}

// The console is set up before the modules, so that a console that cannot
// listen stops the host before any program starts.
void Host::startWebConsole() {
    if (options_.webAddress.empty()) return;
    if (!holdsWebPages(options_.webRoot))
        hostLog(kHostWarning, "the browser console's pages are not in ", options_.webRoot,
                " (--web-root names where they are)");
    WebConsoleHooks hooks;
    hooks.status = [this] { return status(); };
    hooks.restart = [this](std::string const& module, ProgramSupervisor::RestartDone done) {
        return restartModule(module, std::move(done));
    };
    web_ = std::make_unique<WebConsole>(
        client_, WebConsoleSetup{options_.webAddress, options_.webPort, options_.webRoot, options_.debug},
        std::move(hooks));
}

nlohmann::json Host::status() {
    nlohmann::json answer = statusAnswer(client_, supervisor_, runningPorts(), clock_.now());
    answer["package"] = package_.describe();
    return answer;
}

std::vector<ModulePort> Host::runningPorts() const {
    return runningModulePorts(options_.modules, options_.maxModules, options_.port,
                              client_.getModulesInstalled());
}

// The program is started as the host does it: a forked copy must not come back.
bool Host::restartModule(std::string const& name, ProgramSupervisor::RestartDone done) {
    bool known = false;
    asHostOnly([&] { known = supervisor_.requestRestart(name, std::move(done)); });
    if (known) notifier_.status(statusText());
    return known;
}

void Host::advanceRestarts() {
    bool changed = false;
    asHostOnly([&] { changed = supervisor_.advance(); });
    if (changed) notifier_.status(statusText());
}

void Host::startModules() {
    asHostOnly([this] { client_.run(); });
    supervisor_.startedAll();
}

// The modules' children are forked inside `step`: an exception thrown in a
// child's copy must end that copy here, before the copy unwinds into the
// host's own objects (whose destructors would stop the real host's children).
void Host::asHostOnly(std::function<void()> const& step) {
    try {
        step();
    } catch (std::exception const& e) {
        if (getpid() != hostPid_) endForkedCopy(e.what());
        throw;
    } catch (...) {
        if (getpid() != hostPid_) endForkedCopy("unknown exception");
        throw;
    }
}

void Host::reportModules() {
    std::vector<ModulePort> const running = runningPorts();
    if (running.empty()) hostLog(kHostWarning, "no module is running");
    for (ModulePort const& m : running) {
        if (m.port == 0) {
            // Port numbers wrap after 65535, and binding port 0 takes any free port.
            hostLog(kHostWarning, "module ", m.name,
                    " runs on a port the system chose: the port numbers wrapped past 65535");
            continue;
        }
        hostLog(kHostInfo, "module ", m.name, " runs on port ", m.port, " (attach: nc 127.0.0.1 ", m.port,
                ")");
    }
    if (bus_.isConnected()) hostLog(kHostInfo, "bus name ", options_.busName);
}

// Every program is signalled at once; they share one grace time.
void Host::stopModules() {
    client_.modules.stopPrograms();
    client_.stop();
}

void Host::reactToSignals() {
    unsigned const events = signals_.take();
    if (events & HostSignals::kChildEnded) {
        if (supervisor_.checkEnded()) notifier_.status(statusText());
        advanceRestarts();
    }
    if (events & HostSignals::kDumpLog) printRunLog();
    if (events & HostSignals::kStop) {
        stopping_ = true;
    } else if (events & HostSignals::kReload) {
        reload(false);
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

// The running modules are replaced only by a package that has every
// configured module, and only while the broker answers (see SafeReload).
// Returns what was wrong, empty once the package is installed.
std::string Host::reload(bool allowDowngrade) {
    hostLog(kHostInfo, "reloading");
    if (!bus_.isConnected()) bus_.connectToServer();
    std::string const problem =
        bus_.isConnected() ? package_.takeForReload(allowDowngrade)
                           : "the bus broker on 127.0.0.1:" + std::to_string(kBusPort) + " does not answer";
    if (!problem.empty()) {
        hostLog(kHostError, "reload refused, the modules keep running: ", problem);
        return problem;
    }
    package_.install([this] { replaceModules(); });
    sayPresence("online");
    return {};
}

// The package on probation failed: the last good one comes back.
void Host::rollBack() {
    std::string const reason = rollbackReason_;
    rollbackReason_.clear();
    std::string const from = package_.record().installed ? package_.record().installed->version : "";
    if (!package_.rollBack(reason, [this] { replaceModules(); })) return;
    announcePackageEvent({{"event", "rolled back"},
                          {"reason", reason},
                          {"from", from},
                          {"to", package_.record().installed->version}});
    if (fleet_) fleet_->report("rolled back", reason);
    sayPresence("online");
}

// A package event to the bus server, as the modules tell it their state.
void Host::announcePackageEvent(nlohmann::json event) {
    if (!bus_.isConnected()) return;
    auto message = std::make_unique<SystemMessage>();
    message->setKind(control::kPackageEventKind);
    message->setText(control::messageText(event));
    bus_.sendTo(options_.busName, "VLPBusServer", std::move(message));
}

void Host::replaceModules() {
    std::set<pid_t> const groups = childProcessGroups();
    stopModules();
    // The new modules bind the same ports.
    awaitProcessGroupsGone(groups, kGroupsGoneLimit);
    requireFreePorts(options_.modules, options_.maxModules, options_.port);
    client_.modules.configure(options_.modules);
    startModules();
    reportModules();
    notifier_.status(statusText());
}

// "3 modules: 2 running, 1 restarting, 0 ended", for the service manager.
std::string Host::statusText() const {
    std::size_t const all = client_.modules.getModules().size();
    std::size_t const restarting = supervisor_.restarting();
    std::size_t const ended = supervisor_.ended();
    return std::to_string(all) + " modules: " + std::to_string(all - restarting - ended) + " running, " +
           std::to_string(restarting) + " restarting, " + std::to_string(ended) + " ended";
}
