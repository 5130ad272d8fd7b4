// nxahost under injected faults (fault_preload.c, loaded with LD_PRELOAD): a
// forked copy of the host whose child set-up fails before its program starts,
// a fork that fails while the modules start, and a module whose terminal cannot
// be read turn after turn.
#include <gtest/gtest.h>

#include <chrono>
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

TEST(HostFaults, ForkedCopyWhoseChildSetupFailsEndsAtOnceAndTheHostServesTheOthers) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "first", "noarch", "printf 'first ready\\n'; exec sleep 1000"),
                    writeModule(sources(), "second", "noarch", "printf 'second ready\\n'; exec sleep 1000"),
                    writeModule(sources(), "third", "noarch", "printf 'third ready\\n'; exec sleep 1000")});
    // The second child forked (the second module's) cannot become a session leader.
    HostProcess host({"--restart", "never", "first", "second", "third"},
                     {"LD_PRELOAD=" + faultPreload(), "NXA_E2E_FAIL_SETSID=2"});
    ASSERT_TRUE(waitRunning(host, {{"first", 20100}, {"second", 20101}, {"third", 20102}})) << describe(host);

    // The copy writes its line to its standard output, which is still the
    // host's, and ends with status 1, which the host reports.
    std::string const failed = "[ERROR] nxahost: cannot set session leader: Operation not permitted";
    ASSERT_TRUE(host.waitForLine(failed)) << describe(host);
    std::string const ended =
        "[WARNING] nxahost: module program second (pid #) has ended: exit status 1; not restarted";
    ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), ended) == 1; }, kPatience))
        << describe(host);

    // The host goes on serving the others.
    Background first(ncCommand(20100));
    Background third(ncCommand(20102));
    EXPECT_TRUE(first.waitFor("first ready\n")) << first.output();
    EXPECT_TRUE(third.waitFor("third ready\n")) << third.output();

    // Once the host has gone on to serve its own bus (a text to every client),
    // there is still one host, which has said everything once.
    EXPECT_TRUE(textThroughHost(first, "served on\n")) << first.output() << describe(host);
    EXPECT_TRUE(third.waitFor("served on\n")) << third.output() << describe(host);
    EXPECT_EQ(liveProcessesRunning(hostBinary()), 1) << sandboxProcesses().size() << " processes:\n"
                                                     << strayProcesses();
    EXPECT_EQ(host.countLine(failed), 1) << describe(host);
    EXPECT_EQ(countMatchingLines(host.out(), ended), 1) << describe(host);
    for (auto const& [name, port] : std::vector<std::pair<std::string, unsigned>>{
             {"first", 20100}, {"second", 20101}, {"third", 20102}}) {
        EXPECT_EQ(host.countLine(runsOnPortLine(name, port)), 1) << describe(host);
    }
    EXPECT_EQ(host.countLine("[INFO] nxahost: bus name NXAHost"), 1) << describe(host);
    {
        // The copy left the bus connections it shared with the host alone.
        BusSubscriber viewer("viewer");
        bool const subscribed = nxatest::waitUntil(
            [&] {
                publishSystem("NXAModule_first", "viewer", 4, "71-NXAStartOutput");
                return viewer.waitFor("first ready\n", 2s);
            },
            kPatience);
        EXPECT_TRUE(subscribed) << viewer.output() << describe(host);
    }
    EXPECT_EQ(host.out().find("VLPBus server is gone"), std::string::npos) << describe(host);

    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
    EXPECT_EQ(host.countLine("[INFO] nxahost: stopping"), 1) << describe(host);
    // The stop closed the clients' connections.
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(third.wait(), 0);
    EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience)) << strayProcesses();
}

TEST(HostFaults, ForkedCopyFailingAfterItsOutputWentToTheTerminalWritesItsLineThere) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "first", "noarch", "printf 'first ready\\n'; exec sleep 1000"),
                    writeModule(sources(), "second", "noarch", "printf 'second ready\\n'; exec sleep 1000")});
    // In the first module's child, standard output already is the terminal
    // when standard error cannot be replaced.
    HostProcess host({"--restart", "never", "first", "second"},
                     {"LD_PRELOAD=" + faultPreload(), "NXA_E2E_FAIL_DUP2_STDERR=1"});
    ASSERT_TRUE(waitRunning(host, {{"first", 20100}, {"second", 20101}})) << describe(host);
    std::string const failed =
        "[ERROR] nxahost: cannot replace stdin/stdout/stderr of NXA child: Device or resource busy\n";
    Background first(ncCommand(20100));
    ASSERT_TRUE(first.waitFor(failed)) << first.output();
    std::string const ended =
        "[WARNING] nxahost: module program first (pid #) has ended: exit status 1; not restarted";
    ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), ended) == 1; }, kPatience))
        << describe(host);
    // After the copy's line, the host's notice to the module's clients.
    EXPECT_TRUE(first.waitFor("[nxahost] program ended: exit status 1; not restarted\n")) << first.output();
    EXPECT_EQ(first.output(), failed + "[nxahost] program ended: exit status 1; not restarted\n");
    Background second(ncCommand(20101));
    EXPECT_TRUE(second.waitFor("second ready\n")) << second.output();

    // Once the host has gone on to serve its own bus, there is still one host,
    // and the copy's line went nowhere but the module's terminal.
    EXPECT_TRUE(textThroughHost(second, "served on\n")) << second.output() << describe(host);
    EXPECT_EQ(liveProcessesRunning(hostBinary()), 1) << strayProcesses();
    EXPECT_EQ(host.out().find("cannot replace"), std::string::npos) << describe(host);
    EXPECT_EQ(countMatchingLines(host.out(), ended), 1) << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST(HostFaults, ForkFailingForTheSecondModuleEndsTheHostWithTheFirstModulesProgramStopped) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "first", "noarch", "sleep 1000 & printf 'first ready\\n'; wait"),
                    writeModule(sources(), "second", "noarch", "printf 'second ready\\n'; exec sleep 1000")});
    HostProcess host({"first", "second"}, {"LD_PRELOAD=" + faultPreload(), "NXA_E2E_FAIL_FORK=2"});
    ASSERT_EQ(host.waitExit(), 1) << describe(host);
    std::vector<std::string> const lines = host.outLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "[ERROR] nxahost: cannot fork: Resource temporarily unavailable")
        << describe(host);
    EXPECT_EQ(host.out().find("runs on port"), std::string::npos) << describe(host);
    EXPECT_EQ(host.err(), "");
    // The first module's child had been forked; it went with the host.
    EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience)) << strayProcesses();
}

TEST(HostFaults, AnErrorOnEveryTurnForTenSecondsEndsTheHostWrittenOnceThenCounted) {
    NXA_REQUIRE_SANDBOX();
    installPackage(
        {writeModule(sources(), "talker", "noarch", "printf 'something to read\\n'; exec sleep 1000")});
    auto const start = std::chrono::steady_clock::now();
    HostProcess host({"talker"}, {"LD_PRELOAD=" + faultPreload(), "NXA_E2E_FAIL_PTY_READ=1"});
    ASSERT_EQ(host.waitExit(), 1) << describe(host);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    std::string const failed = "[ERROR] nxahost: cannot read from PTTY: Input/output error";
    // Written when it first fails, and once more by the host as it ends.
    EXPECT_EQ(host.countLine(failed), 2) << describe(host);
    EXPECT_EQ(host.countLine("[ERROR] nxahost: every turn has failed for 10 s; giving up"), 1)
        << describe(host);
    std::vector<std::string> const lines = host.outLines();
    int counted = 0;
    for (std::string const& line : lines) {
        if (line.rfind("[ERROR] nxahost: the last error came again ", 0) == 0) ++counted;
    }
    // At most one a second, and one as the host gives up.
    EXPECT_GE(counted, 1) << describe(host);
    EXPECT_LE(counted, 12) << describe(host);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), failed);
    EXPECT_EQ(host.err(), "");
    EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience)) << strayProcesses();
}

}  // namespace
}  // namespace e2e
