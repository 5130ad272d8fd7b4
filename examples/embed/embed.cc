// embed: the smallest host of NXA modules, the loop a device's service daemon
// copies. It installs the package /var/opt/velmora/nxa.zip, runs the named
// modules and serves them until SIGTERM or SIGINT; what is sent to its own bus
// name goes to the library (kind-34 text reaches every module's clients).
//
//     embed [--bus-name NAME] MODULE...
//
// The bus name defaults to NXAEmbed, not nxahost's NXAHost: this host answers
// no control requests (nxactl).
//
// What the library asks of its host:
// - One thread. The library has no threads and no timers and is not
//   thread-safe: every call into it comes from this loop.
// - Every turn waits again. The descriptors change from turn to turn (clients
//   come and go, output waits to be written), so each turn clears both sets,
//   has addFdsCached() add the modules' descriptors, waits, and hands the
//   filled sets to handleReady(). Nothing else blocks, so a turn is short.
//   addFdsCached() and handleReady() do what addFds(), handleInput() and
//   handleOutput() do, at a cost that follows the modules with something
//   ready rather than all of them: an idle module costs nothing.
// - run() forks each module's program. In a child whose program cannot be
//   started, run() comes back by exception: that copy of this process must end
//   at once with _exit(), before it unwinds into the objects it shares with
//   the host. Their destructors would end the bus connections the host goes
//   on using, and exit() would write out a second time what output was
//   buffered at the fork (see startModules).
//
// Left out here, and done by nxahost (tools/nxahost) for a host that runs
// unattended: starting programs that ended again, coming back to the bus after
// a broker outage, reloading the package, counting failures instead of ending.
#include <fcntl.h>
#include <nxaclient.h>
#include <pthread.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/vlpbus_client.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr char kPackageDir[] = "/var/opt/velmora";      // holds nxa.zip
constexpr char kModulesDir[] = "/var/opt/velmora/nxa";  // programs always start from here
constexpr char kWorkDir[] = "/var/opt/velmora/work";    // the build workspace; a host builds nothing
constexpr unsigned short kFirstPort = 20100;            // module k listens on 20100 + k
constexpr unsigned long kMaxModules = 16;
constexpr unsigned short kBusPort = 20010;  // the broker, on 127.0.0.1
// A failing turn is most often one client's fault (a reset connection:
// "cannot read from telnet:7") and costs the rest of that turn only; a failure
// on this many turns in a row is the host's, and ends it.
constexpr unsigned kGiveUpAfterTurns = 1000;

int wakeFd = -1;  // the self-pipe's write end

void onStopSignal(int) {
    int const saved = errno;
    char const byte = 1;
    ssize_t ignored = write(wakeFd, &byte, 1);  // a full pipe wakes the loop just as well
    (void)ignored;
    errno = saved;
}

// SIGTERM and SIGINT make the returned descriptor readable. SIGPIPE is ignored,
// so a write to a vanished client fails with EPIPE instead of ending the host.
// Module programs start with the default dispositions: an ignored signal would
// stay ignored across exec.
int stopSignalPipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw IOException(errno, "cannot create signal pipe");
    wakeFd = ends[1];
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    pthread_atfork(nullptr, nullptr, [] {
        for (int s : {SIGTERM, SIGINT, SIGPIPE}) signal(s, SIG_DFL);
    });
    return ends[0];
}

[[noreturn]] void endForkedCopy(char const* what) {
    std::string const line = std::string("embed: module program not started: ") + what + "\n";
    ssize_t ignored = write(2, line.data(), line.size());
    (void)ignored;
    _exit(1);
}

// Installs the package and starts every module's program. Failures in the host
// itself leave by exception; the forked copies end here.
void startModules(NXAClient& client, pid_t host) {
    try {
        client.run();
    } catch (std::exception const& e) {
        if (getpid() != host) endForkedCopy(e.what());
        throw;
    } catch (...) {
        if (getpid() != host) endForkedCopy("unknown exception");
        throw;
    }
}

int serve(std::string const& busName, std::vector<std::string> const& names) {
    pid_t const host = getpid();
    int const stopFd = stopSignalPipe();
    NXAClient client(kPackageDir, kModulesDir, kWorkDir, 0, kFirstPort, kMaxModules, "", 0);
    VLPBusClient bus("", kBusPort, busName);
    bus.setup();  // one attempt; nxahost also comes back after a broker outage
    client.modules.configure(names);
    startModules(client, host);
    std::cout << "embed: serving " << client.getModulesInstalled().size() << " module(s) as " << busName
              << std::endl;

    FdSet rd, wr;
    unsigned failedTurns = 0;
    for (;;) {
        rd.clear();
        wr.clear();
        client.addFdsCached(rd, wr);
        rd.add(stopFd);
        int const busFd = bus.fd();  // -1 while off the bus: add() ignores it
        rd.add(busFd);
        if (waitFds(rd, wr, -1) < 0) {
            if (errno == EINTR) continue;  // a stop signal: its byte is in the pipe
            throw IOException(errno, "cannot wait for descriptors");
        }
        if (rd.isSet(stopFd)) break;
        try {
            client.handleReady(rd, wr);
            if (busFd >= 0 && rd.isSet(busFd)) {
                bus.read();  // false when the broker has gone
                while (std::unique_ptr<MessageBase> msg = bus.getMessage()) {
                    if (auto const* routed = dynamic_cast<RouterMessage const*>(msg.get()))
                        client.handle(*routed);
                }
            }
            failedTurns = 0;
        } catch (std::exception const& e) {
            std::cerr << "embed: " << e.what() << std::endl;
            if (++failedTurns == kGiveUpAfterTurns) throw;
        }
    }
    // Every program gets SIGTERM at once and they share one grace time.
    client.modules.stopPrograms();
    client.stop();
    std::cout << "embed: stopped" << std::endl;
    return 0;
}

// A module name is a folder below the modules directory.
bool plainName(std::string const& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::string busName = "NXAEmbed";
    int first = 1;
    if (argc > 2 && std::strcmp(argv[1], "--bus-name") == 0) {
        busName = argv[2];
        first = 3;
    }
    std::vector<std::string> const names(argv + first, argv + argc);
    bool usable = !names.empty() && !busName.empty();
    for (std::string const& name : names) usable = usable && plainName(name);
    if (!usable) {
        std::cerr << "usage: embed [--bus-name NAME] MODULE...\n";
        return 2;
    }
    try {
        return serve(busName, names);
    } catch (std::exception const& e) {
        std::cerr << "embed: " << e.what() << std::endl;
        return 1;
    }
}
