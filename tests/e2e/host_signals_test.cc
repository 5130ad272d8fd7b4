// nxahost's signals: USR1 prints the run log, HUP installs the package again
// and restarts the modules, INT and TERM stop everything and end the host with
// status 0, PIPE is ignored by the host but not by the module programs.
#include <gtest/gtest.h>

#include <csignal>

#include "clients.h"
#include "host_process.h"
#include "line_patterns.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

std::string sources() {
    return scratchDir() + "/src";
}

// The line a module's clients see first, with the program's process id.
std::string startingLineSeenBy(Background const& client, std::string const& name) {
    return leadingStartingLine(client.output(), name);
}

// Standard output of the host from the last line starting with `first` on.
std::string outputFromLast(HostProcess const& host, std::string const& first) {
    std::string const out = host.out();
    std::size_t const at = out.rfind(first);
    return at == std::string::npos ? std::string() : out.substr(at);
}

bool alive(pid_t pid) {
    std::string const stat = nxatest::readFile("/proc/" + std::to_string(pid) + "/stat");
    return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

// The signal bits of a "SigIgn:"-style line of /proc/<pid>/status.
unsigned long long signalMask(pid_t pid, std::string const& field) {
    std::string const status = nxatest::readFile("/proc/" + std::to_string(pid) + "/status");
    std::size_t const at = status.find(field + ":");
    return at == std::string::npos ? 0 : std::stoull(status.substr(at + field.size() + 1), nullptr, 16);
}

TEST(HostSignals, Usr1PrintsTheGatheredRunLogExactlyAndEmptiesIt) {
    NXA_REQUIRE_SANDBOX();
    installPackage(
        {writeModule(
             sources(), "alpha", "noarch",
             "printf 'alpha says hi\\r\\n'; while IFS= read -r l; do printf 'got <%s>\\r\\n' \"$l\"; done"),
         writeModule(sources(), "beta", "noarch", "printf 'beta ends without a line end'; exec sleep 1000")});
    HostProcess host({"alpha", "beta"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}, {"beta", 20101}})) << describe(host);
    Background alpha(ncCommand(20100), true);
    Background beta(ncCommand(20101));
    ASSERT_TRUE(alpha.waitFor("alpha says hi\r\n")) << alpha.output();
    ASSERT_TRUE(beta.waitFor("beta ends without a line end")) << beta.output();
    std::string const alphaStart = startingLineSeenBy(alpha, "alpha");
    std::string const betaStart = startingLineSeenBy(beta, "beta");
    ASSERT_FALSE(alphaStart.empty()) << alpha.output();
    ASSERT_FALSE(betaStart.empty()) << beta.output();

    // The modules' logs in configuration order; the host ends the text with a
    // line end of its own, since the log does not.
    std::string const log = alphaStart + "alpha says hi\r\n" + betaStart + "beta ends without a line end";
    host.signal(SIGUSR1);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: end of run log")) << describe(host);
    EXPECT_EQ(outputFromLast(host, "[INFO] nxahost: run log"),
              "[INFO] nxahost: run log, " + std::to_string(log.size()) + " bytes:\n" + log +
                  "\n[INFO] nxahost: end of run log\n");

    // New output only; this log ends in a line end and gets none added.
    alpha.send("more\n");
    ASSERT_TRUE(alpha.waitFor("got <more>\r\n")) << alpha.output();
    host.signal(SIGUSR1);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: end of run log", 2)) << describe(host);
    EXPECT_EQ(outputFromLast(host, "[INFO] nxahost: run log"),
              "[INFO] nxahost: run log, 12 bytes:\ngot <more>\r\n[INFO] nxahost: end of run log\n");

    // Nothing new: an empty log.
    host.signal(SIGUSR1);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: end of run log", 3)) << describe(host);
    EXPECT_EQ(outputFromLast(host, "[INFO] nxahost: run log"),
              "[INFO] nxahost: run log, 0 bytes:\n[INFO] nxahost: end of run log\n");
    EXPECT_TRUE(host.running());
}

TEST(HostSignals, HupInstallsTheChangedPackageAndRestartsTheModules) {
    NXA_REQUIRE_SANDBOX();
    // beta is in the first package but built for another machine.
    installPackage({writeModule(sources(), "alpha", "noarch", "printf 'alpha version 1\\n'; exec sleep 1000"),
                    writeModule(sources(), "beta", "x86_64", "printf 'beta is here\\n'; exec sleep 1000")});
    HostProcess host({"alpha", "beta"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}})) << describe(host);
    EXPECT_FALSE(listening(20101));
    Background before(ncCommand(20100));
    ASSERT_TRUE(before.waitFor("alpha version 1\n")) << before.output();
    std::string const oldStart = startingLineSeenBy(before, "alpha");
    pid_t const oldProgram = pidOfStartingLine(oldStart);
    ASSERT_TRUE(alive(oldProgram));

    installPackage({writeModule(sources(), "alpha", "noarch", "printf 'alpha version 2\\n'; exec sleep 1000"),
                    writeModule(sources(), "beta", "noarch", "printf 'beta is here\\n'; exec sleep 1000")});
    host.signal(SIGHUP);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: reloading")) << describe(host);
    ASSERT_TRUE(host.waitForLine(runsOnPortLine("alpha", 20100), 2)) << describe(host);
    ASSERT_TRUE(host.waitForLine(runsOnPortLine("beta", 20101))) << describe(host);

    // The old program and its clients are gone; the new package runs.
    EXPECT_EQ(before.wait(), 0) << before.output();
    EXPECT_FALSE(alive(oldProgram));
    Background alpha(ncCommand(20100));
    Background beta(ncCommand(20101));
    EXPECT_TRUE(alpha.waitFor("alpha version 2\n")) << alpha.output();
    EXPECT_EQ(alpha.output().find("version 1"), std::string::npos) << alpha.output();
    EXPECT_TRUE(beta.waitFor("beta is here\n")) << beta.output();
    EXPECT_TRUE(host.running());
}

TEST(HostSignals, HupGetsThePortsBackFromProgramsWithChildrenOfTheirOwn) {
    NXA_REQUIRE_SANDBOX();
    // The program's child inherits the module's listening socket and holds it
    // until it has gone itself.
    installPackage({writeModule(sources(), "parent", "noarch", "sleep 1000 & printf 'ready\\n'; wait")});
    HostProcess host({"parent"});
    ASSERT_TRUE(waitRunning(host, {{"parent", 20100}})) << describe(host);
    for (int round = 2; round <= 4; ++round) {
        Background before(ncCommand(20100));
        ASSERT_TRUE(before.waitFor("ready\n")) << before.output();
        host.signal(SIGHUP);
        ASSERT_TRUE(host.waitForLine(runsOnPortLine("parent", 20100), round)) << describe(host);
        EXPECT_EQ(before.wait(), 0);
    }
    EXPECT_EQ(host.out().find("cannot bind"), std::string::npos) << describe(host);
    Background after(ncCommand(20100));
    EXPECT_TRUE(after.waitFor("ready\n")) << after.output();
}

// Starts two modules whose programs each keep a child of their own, stops the
// host with `sig` and checks that nothing is left.
void expectStopLeavesNothing(int sig) {
    std::string const body = "sleep 1000 & printf 'ready\\n'; wait";
    installPackage(
        {writeModule(sources(), "one", "noarch", body), writeModule(sources(), "two", "noarch", body)});
    HostProcess host({"one", "two"});
    ASSERT_TRUE(waitRunning(host, {{"one", 20100}, {"two", 20101}})) << describe(host);
    auto sleepers = [] {
        int count = 0;
        for (ProcessInfo const& p : sandboxProcesses()) count += p.comm == "sleep" && p.state != 'Z';
        return count;
    };
    ASSERT_TRUE(nxatest::waitUntil([&] { return sleepers() == 2; }, kPatience)) << strayProcesses();

    host.signal(sig);
    ASSERT_EQ(host.waitExit(), 0) << describe(host);
    std::vector<std::string> const lines = host.outLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "[INFO] nxahost: stopping") << describe(host);
    EXPECT_EQ(host.err(), "");
    // The programs' own children got the signal with their group and may take
    // a moment to go.
    EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience)) << strayProcesses();
    EXPECT_FALSE(listening(20100));
    EXPECT_FALSE(listening(20101));
}

TEST(HostSignals, TermStopsEveryModuleWithItsChildrenAndExitsZero) {
    NXA_REQUIRE_SANDBOX();
    expectStopLeavesNothing(SIGTERM);
}

TEST(HostSignals, IntStopsEveryModuleWithItsChildrenAndExitsZero) {
    NXA_REQUIRE_SANDBOX();
    expectStopLeavesNothing(SIGINT);
}

TEST(HostSignals, PipeIsIgnoredByTheHostButNotByTheModulePrograms) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "plain", "noarch", "printf 'ready\\n'; exec sleep 1000")});
    HostProcess host({"plain"});
    ASSERT_TRUE(waitRunning(host, {{"plain", 20100}})) << describe(host);
    Background nc(ncCommand(20100));
    ASSERT_TRUE(nc.waitFor("ready\n")) << nc.output();
    unsigned long long const pipeBit = 1ull << (SIGPIPE - 1);
    EXPECT_NE(signalMask(host.pid(), "SigIgn") & pipeBit, 0u);
    std::vector<ProcessInfo> const children = childrenOf(host.pid());
    ASSERT_EQ(children.size(), 1u);
    EXPECT_EQ(children[0].comm, "sleep");
    EXPECT_EQ(signalMask(children[0].pid, "SigIgn") & pipeBit, 0u);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD}) {
        EXPECT_EQ(signalMask(children[0].pid, "SigCgt") & (1ull << (sig - 1)), 0u) << "signal " << sig;
    }
}

}  // namespace
}  // namespace e2e
