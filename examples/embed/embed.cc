// embed: the smallest daemon that hosts NXA modules the way a device's service
// daemon would, with the host kit (libnxahost): it installs the package
// /var/opt/velmora/nxa.zip, runs the named modules, starts a program that
// ended again with back-off, answers the operator's controls on its bus name
// (so `nxactl --bus-name NXAEmbed status` works against it) and, with --web,
// serves the browser console. One thread; SIGTERM or SIGINT stops it.
//
//     embed [--bus-name NAME] [--web ADDRESS:PORT] MODULE...
//
// What the library and the kit ask of their host:
// - One thread. Neither has threads or timers of its own, and neither is
//   thread-safe: every call comes from this loop.
// - Every turn waits again. Each part adds its descriptors to the turn's sets
//   (and the kit's parts say when they must be asked again: nextDue), the
//   loop waits once, and each part handles what is ready. addFdsCached() and
//   handleReady() cost what is ready, not every module.
// - Programs are forked inside the library's and the supervisor's calls. In a
//   child whose program cannot be started, such a call comes back by
//   exception: that copy of this process must end at once with _exit(),
//   before it unwinds into the objects it shares with the host (see
//   asHostOnly).
//
// Left to nxahost (tools/nxahost): reloading the package (nxahost::SafeReload),
// coming back to the bus after a broker outage, counting failures instead of
// ending, the service manager's notifications.
#include <nxaclient.h>
#include <nxahost/clock.h>
#include <nxahost/control_protocol.h>
#include <nxahost/control_server.h>
#include <nxahost/device.h>
#include <nxahost/facade_programs.h>
#include <nxahost/host_signals.h>
#include <nxahost/log.h>
#include <nxahost/module_ports.h>
#include <nxahost/module_status.h>
#include <nxahost/program_supervisor.h>
#include <nxahost/web_console.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/vlpbus_client.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr unsigned short kFirstPort = nxahost::kFirstModulePort;  // module k listens on 20100 + k
constexpr unsigned long kMaxModules = 16;
// A failing turn is most often one client's fault (a reset connection:
// "cannot read from telnet:7") and costs the rest of that turn only; a failure
// on this many turns in a row is the host's, and ends it.
constexpr unsigned kGiveUpAfterTurns = 1000;

struct Options {
    std::string busName = "NXAEmbed";
    std::string webAddress;  // empty: no console
    unsigned short webPort = 0;
    std::vector<std::string> modules;
};

// A forked copy of the host whose program could not be started ends here.
[[noreturn]] void endForkedCopy(char const* what) {
    std::string const line = std::string("embed: module program not started: ") + what + "\n";
    ssize_t ignored = write(2, line.data(), line.size());
    (void)ignored;
    _exit(1);
}

// Runs `step`, which may fork module programs: an exception in a forked copy
// ends that copy; in the host it goes on.
void asHostOnly(pid_t host, std::function<void()> const& step) {
    try {
        step();
    } catch (std::exception const& e) {
        if (getpid() != host) endForkedCopy(e.what());
        throw;
    }
}

// The host: the library's facade with the kit's parts around it.
class Embed {
public:
    explicit Embed(Options options)
        : options_(std::move(options)),
          host_(getpid()),
          client_(nxahost::kPackageDir, nxahost::kModulesDir, nxahost::kWorkDir, 0, kFirstPort, kMaxModules,
                  "", 0),
          bus_("", nxahost::kBusPort, options_.busName),
          programs_(client_),
          supervisor_(programs_, nxahost::RestartPolicy::onFailure, clock_, jitter_, host_),
          control_(client_,
                   nxahost::ControlServer::Hooks{
                       [this] { return status(); },
                       [this](std::string const& module, nxahost::ProgramSupervisor::RestartDone done) {
                           bool known = false;
                           asHostOnly(host_,
                                      [&] { known = supervisor_.requestRestart(module, std::move(done)); });
                           return known;
                       },
                       nullptr, nullptr},
                   nxahost::ControlServer::overBus(bus_, options_.busName)) {
        nxahost::setLogName("embed");
        bus_.setup();  // one attempt; nxahost also comes back after a broker outage
    }

    int run() {
        if (!options_.webAddress.empty()) startConsole();
        client_.modules.configure(options_.modules);
        asHostOnly(host_, [this] { client_.run(); });
        supervisor_.startedAll();
        std::cout << "embed: serving " << client_.getModulesInstalled().size() << " module(s) as "
                  << options_.busName << std::endl;
        while (turn()) {
        }
        supervisor_.abandonRestarts("the host is stopping");
        // Every program gets SIGTERM at once and they share one grace time.
        client_.modules.stopPrograms();
        client_.stop();
        std::cout << "embed: stopped" << std::endl;
        return 0;
    }

private:
    // One turn: false once a stop signal came.
    bool turn() {
        FdSet rd, wr;
        client_.addFdsCached(rd, wr);
        rd.add(signals_.fd());
        rd.add(bus_.fd());  // -1 while off the bus: add() ignores it
        int timeout = timeoutMs();
        if (web_) timeout = web_->addFds(rd, wr, timeout);
        if (waitFds(rd, wr, timeout) < 0) {
            if (errno != EINTR) throw IOException(errno, "cannot wait for descriptors");
            rd.clear();
            wr.clear();
        }
        serve(rd, wr);
        if (web_) web_->serve(rd, wr);
        if (rd.isSet(signals_.fd()) && !takeSignals()) return false;
        if (auto const due = supervisor_.nextDue(); due && *due <= clock_.now())
            asHostOnly(host_, [this] { supervisor_.advance(); });
        if (supervisor_.reportingEnds()) supervisor_.reportDrainedEnds();
        return true;
    }

    // The wait ends by itself only for a restart that is due, or to report an
    // ended program whose last output is slow to come.
    int timeoutMs() const {
        if (supervisor_.reportingEnds()) return 100;
        auto const due = supervisor_.nextDue();
        if (!due) return -1;
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(*due - clock_.now()).count();
        return static_cast<int>(std::max<long long>(0, left));
    }

    void serve(FdSet const& rd, FdSet const& wr) {
        try {
            client_.handleReady(rd, wr);
            int const busFd = bus_.fd();
            if (busFd >= 0 && rd.isSet(busFd)) readBus();
            failedTurns_ = 0;
        } catch (std::exception const& e) {
            std::cerr << "embed: " << e.what() << std::endl;
            if (++failedTurns_ == kGiveUpAfterTurns) throw;
        }
    }

    // Control requests go to the kit's server, the rest to the library.
    void readBus() {
        bus_.read();  // false when the broker has gone
        while (std::unique_ptr<MessageBase> msg = bus_.getMessage()) {
            auto const* routed = dynamic_cast<RouterMessage const*>(msg.get());
            if (routed != nullptr && !control_.handle(*routed)) client_.handle(*routed);
        }
    }

    // A child that ended is looked at; false for a stop signal.
    bool takeSignals() {
        unsigned const events = signals_.take();
        if (events & nxahost::HostSignals::kChildEnded) {
            supervisor_.checkEnded();
            asHostOnly(host_, [this] { supervisor_.advance(); });
        }
        return (events & nxahost::HostSignals::kStop) == 0;
    }

    nlohmann::json status() { return nxahost::statusAnswer(client_, supervisor_, ports(), clock_.now()); }

    std::vector<nxahost::ModulePort> ports() const {
        return nxahost::runningModulePorts(options_.modules, kMaxModules, kFirstPort,
                                           client_.getModulesInstalled());
    }

    void startConsole() {
        nxahost::WebConsoleHooks hooks;
        hooks.status = [this] { return status(); };
        hooks.restart = [this](std::string const& module, nxahost::ProgramSupervisor::RestartDone done) {
            bool known = false;
            asHostOnly(host_, [&] { known = supervisor_.requestRestart(module, std::move(done)); });
            return known;
        };
        web_ = std::make_unique<nxahost::WebConsole>(
            client_,
            nxahost::WebConsoleSetup{options_.webAddress, options_.webPort, nxahost::installedWebRoot(), 0},
            std::move(hooks));
    }

    Options options_;
    pid_t const host_;
    nxahost::HostSignals signals_;
    NXAClient client_;
    VLPBusClient bus_;
    nxahost::SteadyClock clock_;
    nxahost::RandomJitter jitter_;
    nxahost::FacadePrograms programs_;
    nxahost::ProgramSupervisor supervisor_;
    nxahost::ControlServer control_;
    std::unique_ptr<nxahost::WebConsole> web_;
    unsigned failedTurns_ = 0;
};

// A module name is a folder below the modules directory.
bool plainName(std::string const& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

// "ADDRESS:PORT" into the options; false when it is not that.
bool parseWeb(std::string const& text, Options& options) {
    std::size_t const colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) return false;
    long const port = std::strtol(text.c_str() + colon + 1, nullptr, 10);
    if (port < 1 || port > 65535) return false;
    options.webAddress = text.substr(0, colon);
    options.webPort = static_cast<unsigned short>(port);
    return true;
}

bool parse(int argc, char* argv[], Options& options) {
    int at = 1;
    for (; at + 1 < argc && argv[at][0] == '-'; at += 2) {
        if (std::strcmp(argv[at], "--bus-name") == 0) {
            options.busName = argv[at + 1];
        } else if (std::strcmp(argv[at], "--web") != 0 || !parseWeb(argv[at + 1], options)) {
            return false;
        }
    }
    options.modules.assign(argv + at, argv + argc);
    bool usable = !options.modules.empty() && !options.busName.empty();
    for (std::string const& name : options.modules) usable = usable && plainName(name);
    return usable;
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::cerr << "usage: embed [--bus-name NAME] [--web ADDRESS:PORT] MODULE...\n";
        return 2;
    }
    try {
        return Embed(std::move(options)).run();
    } catch (std::exception const& e) {
        std::cerr << "embed: " << e.what() << std::endl;
        return 1;
    }
}
