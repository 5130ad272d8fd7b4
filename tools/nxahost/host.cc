#include "host.h"

#include <unistd.h>
#include <vlplatform/descriptors.h>
#include <vlplatform/net.h>
#include <vlplatform/zipper.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host_log.h"
#include "module_groups.h"
#include "module_ports.h"
#include "module_status.h"
#include "nxa_constants.h"
#include "package_check.h"

namespace {

using nxatools::kBusPort;
// The tools name the package file the library installs.
static_assert(std::string_view(nxatools::kPackageFile) == NXAClient::NXA_ZIP);
// How long a reload waits for the stopped module programs' groups to go.
constexpr std::chrono::milliseconds kGroupsGoneLimit{3000};
// Room for the topic and properties besides a message's text.
constexpr unsigned kBusPacketRoom = 4096;

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
      store_(options_.packageDir),
      client_(store_.installDir().c_str(), options_.modulesDir.c_str(), options_.workDir.c_str(), 0,
              options_.port, options_.maxModules, "", options_.debug),
      bus_("", kBusPort, options_.busName),
      supervisor_(client_, options_.restart, hostPid_),
      control_(client_, supervisor_, bus_, options_,
               [this](std::string const& module, ProgramSupervisor::RestartDone done) {
                   return restartModule(module, std::move(done));
               }) {
    noteDescriptorOpened(signals_.fd());
    setAsideAcceptReserve();
    setAcceptedConnectionTimeout(options_.clientTimeout);
    zipper::setUnpackBudget(options_.unpackBudgetMiB << 20);
    bus_.setMaxPacketBytes(kMaxBusMessage + kBusPacketRoom);
    bus_.setup();
    lastBusAttempt_ = Clock::now();
    lastModuleBusCheck_ = lastBusAttempt_;
}

int Host::run() {
    requireFreePorts(options_.modules, options_.maxModules, options_.port);
    startWebConsole();
    client_.modules.configure(options_.modules);
    installAtStart();
    reportModules();
    // Said once the modules run, after their ports: it is no module's.
    if (web_)
        hostLog(kHostInfo, "browser console on http://", options_.webAddress, ":", options_.webPort, "/");
    notifier_.ready(statusText());
    while (!stopping_) turn();
    hostLog(kHostInfo, "stopping");
    supervisor_.abandonRestarts("the host is stopping");
    stopModules();
    return 0;
}

// The console is set up before the modules, so that a console that cannot
// listen stops the host before any program starts.
void Host::startWebConsole() {
    if (options_.webAddress.empty()) return;
    WebConsoleHooks hooks;
    hooks.status = [this] { return statusAnswer(client_, supervisor_, options_); };
    hooks.restart = [this](std::string const& module, ProgramSupervisor::RestartDone done) {
        return restartModule(module, std::move(done));
    };
    hooks.port = [this](std::string const& module) { return modulePort(module); };
    web_ = std::make_unique<WebConsole>(
        WebConsoleSetup{options_.webAddress, options_.webPort, options_.webRoot, options_.debug},
        std::move(hooks));
}

// The program is started as the host does it: a forked copy must not come back.
bool Host::restartModule(std::string const& name, ProgramSupervisor::RestartDone done) {
    bool known = false;
    asHostOnly([&] { known = supervisor_.requestRestart(name, Clock::now(), std::move(done)); });
    if (known) notifier_.status(statusText());
    return known;
}

void Host::advanceRestarts() {
    bool changed = false;
    asHostOnly([&] { changed = supervisor_.advance(Clock::now()); });
    if (changed) notifier_.status(statusText());
}

int Host::modulePort(std::string const& name) {
    for (ModulePort const& m : runningModulePorts(options_.modules, options_.maxModules, options_.port,
                                                  client_.getModulesInstalled())) {
        if (m.name == name) return m.port;
    }
    return -1;
}

// The library installs the host's copy of the package, taken once: a package
// file replaced meanwhile changes nothing of what is installed.
void Host::installAtStart() {
    if (!client_.modules.getModules().empty()) {
        std::string const problem = store_.takeDelivered(packageLimit());
        if (!problem.empty()) throw std::runtime_error(problem);
        store_.stageIncoming();
    }
    startModules();
    if (!client_.modules.getModules().empty()) store_.keepStagedAsRunning();
}

unsigned long long Host::packageLimit() const {
    return zipper::unpackBudget(store_.installDir());
}

void Host::startModules() {
    asHostOnly([this] { client_.run(); });
    supervisor_.startedAll(Clock::now());
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
    std::vector<ModulePort> const running = runningModulePorts(options_.modules, options_.maxModules,
                                                               options_.port, client_.getModulesInstalled());
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
        if (supervisor_.checkEnded(Clock::now())) notifier_.status(statusText());
        advanceRestarts();
    }
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

// The running modules are replaced only by a package that has every
// configured module, and only while the broker answers. What is checked is
// the host's own copy of the package, and that copy is what is installed.
void Host::reload() {
    hostLog(kHostInfo, "reloading");
    std::string const problem = reloadProblem();
    if (!problem.empty()) {
        hostLog(kHostError, "reload refused, the modules keep running: ", problem);
        return;
    }
    store_.stageIncoming();
    installStaged();
}

std::string Host::reloadProblem() {
    if (!bus_.isConnected()) bus_.connectToServer();
    if (!bus_.isConnected())
        return "the bus broker on 127.0.0.1:" + std::to_string(kBusPort) + " does not answer";
    std::string const problem = store_.takeDelivered(packageLimit());
    if (!problem.empty()) return problem;
    std::size_t const count = std::min<std::size_t>(options_.modules.size(), options_.maxModules);
    std::vector<std::string> const modules(options_.modules.begin(), options_.modules.begin() + count);
    return checkPackage(store_.incoming(), modules, store_.checkDir(), store_.delivered());
}

// An installation that fails after its check (a full disk, a port taken
// meanwhile) puts the package that ran before back; only when even that fails
// does the error leave, ending the host as at start.
void Host::installStaged() {
    try {
        replaceModules();
        store_.keepStagedAsRunning();
        return;
    } catch (std::exception const& e) {
        if (!store_.stageRunning()) throw;
        hostLog(kHostError, "reload failed: ", e.what(), "; installing the package that ran before again");
    }
    replaceModules();
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
