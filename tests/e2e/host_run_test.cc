// nxahost serving its modules: which modules of a package run and on which
// ports, what nc, socat and the bus see of them, and the options that change
// where things are.
#include <gtest/gtest.h>

#include <csignal>

#include "clients.h"
#include "host_process.h"
#include "line_patterns.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

std::string sources() {
    return scratchDir() + "/src";
}

// A program that answers every line it reads with "got <line>".
constexpr char kAnswering[] =
    "printf 'ready\\r\\n'\n"
    "while IFS= read -r line; do printf 'got <%s>\\r\\n' \"$line\"; done";

// A program that prints "tick <n>" ten times a second.
constexpr char kTicking[] = "i=0; while :; do i=$((i+1)); printf 'tick %d\\n' $i; sleep 0.1; done";

TEST(HostRun, OnlyTheNoarchModuleOfThreeRunsOnFirstPortPlusItsIndex) {
    NXA_REQUIRE_SANDBOX();
    installPackage(
        {writeModule(sources(), "x64", "x86_64", "printf 'x64 runs\\n'; exec sleep 1000"),
         writeModule(sources(), "old", "i586", "printf 'old runs\\n'; exec sleep 1000"),
         writeModule(sources(), "any", "noarch", "printf 'any runs\\n'; while :; do sleep 1; done")});
    HostProcess host({"--port", "20200", "x64", "old", "any"});
    ASSERT_TRUE(waitRunning(host, {{"any", 20202}})) << describe(host);

    EXPECT_EQ(host.countLine(runsOnPortLine("x64", 20200)), 0);
    EXPECT_EQ(host.countLine(runsOnPortLine("old", 20201)), 0);
    EXPECT_FALSE(listening(20200));
    EXPECT_FALSE(listening(20201));
    Background nc(ncCommand(20202), true);
    ASSERT_TRUE(nc.waitFor("any runs\n")) << nc.output();
    EXPECT_NE(leadingStartingLine(nc.output(), "any"), "") << nc.output();
    // All three were installed; the manifest check dropped two.
    EXPECT_EQ(listDir(kModulesDir), (std::vector<std::string>{"any", "old", "x64"}));
    std::vector<ProcessInfo> const children = childrenOf(host.pid());
    ASSERT_EQ(children.size(), 1u);
    EXPECT_EQ(children[0].comm, "any");
    EXPECT_TRUE(host.running());
}

TEST(HostRun, NcSeesTheStartingLineFirstAndReachesTheProgram) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "answer", "noarch", kAnswering)});
    HostProcess host({"answer"});
    ASSERT_TRUE(waitRunning(host, {{"answer", 20100}})) << describe(host);
    Background nc(ncCommand(20100), true);
    ASSERT_TRUE(nc.waitFor("ready\r\n")) << nc.output();
    std::string const seen = nc.output();
    std::string const starting = leadingStartingLine(seen, "answer");
    ASSERT_NE(starting, "") << seen;
    EXPECT_EQ(seen, starting + "ready\r\n");

    nc.send("hello module\n");
    ASSERT_TRUE(nc.waitFor("got <hello module>\r\n")) << nc.output();
    nc.send("second line\n");
    ASSERT_TRUE(nc.waitFor("got <second line>\r\n")) << nc.output();
}

TEST(HostRun, BytesZeroCarriageReturnAnd0xFFPassBothWaysThroughSocatAndNc) {
    NXA_REQUIRE_SANDBOX();
    // The program shows the three bytes it reads in hex, then writes them back
    // between two markers; rounds are numbered.
    installPackage({writeModule(sources(), "bytes", "noarch",
                                "printf 'ready\\n'; n=0\n"
                                "while :; do\n"
                                "  n=$((n+1))\n"
                                "  printf 'in%d:%s\\n' $n \"$(head -c 3 | od -An -tx1 | tr -d ' \\n')\"\n"
                                "  printf 'out%d:\\000\\015\\377:end\\n' $n\n"
                                "done")});
    HostProcess host({"bytes"});
    ASSERT_TRUE(waitRunning(host, {{"bytes", 20100}})) << describe(host);

    int round = 0;
    for (std::string const& command : {socatCommand(20100), ncCommand(20100)}) {
        std::string const n = std::to_string(++round);
        Background client(command, true);
        ASSERT_TRUE(client.waitFor("ready\n")) << command << ": " << client.output();
        client.send(std::string("\x00\x0d\xff", 3));
        std::string const expected =
            "in" + n + ":000dff\nout" + n + ":" + std::string("\x00\x0d\xff", 3) + ":end\n";
        EXPECT_TRUE(client.waitFor(expected)) << command << ": " << client.output();
    }
}

// The talker's bus output as one mosquitto_sub connection on two topics shows
// it: a witness's and a viewer's. What must not reach the viewer is shown by
// order: the module sends both their chunks over its one bus connection, so a
// marker the host pushes to every client of the module comes to the witness
// after anything the module could have sent the viewer before it. A new
// subscriber first gets the recent output, then every subscriber is sent one
// chunk a turn: once the witness has the marker and a tick after it, the
// viewer, had it been sent anything until then, would have it too.
class WitnessedViewer {
public:
    WitnessedViewer() : bus_(std::vector<std::string>{"witness", "viewer"}, "%t %x") {}

    std::vector<BusMessage> messages() const { return parseMessages(bus_.output()); }

    // Index of the first message to `name` holding `text`, from `from` on;
    // npos when there is none.
    std::size_t firstAfter(std::string const& name, std::string const& text, std::size_t from = 0) const {
        std::vector<BusMessage> const seen = messages();
        for (std::size_t i = from; i < seen.size(); ++i)
            if (seen[i].topic == "vlpbus/" + name && seen[i].payload.find(text) != std::string::npos)
                return i;
        return std::string::npos;
    }

    // Asks the talker for its output as `name` until a tick comes to `name`.
    bool start(std::string const& name) const {
        return nxatest::waitUntil(
            [&] {
                publishSystem("NXAModule_talker", name, 4, "71-NXAStartOutput");
                return nxatest::waitUntil([&] { return firstAfter(name, "tick") != std::string::npos; }, 2s);
            },
            kPatience);
    }

    // Sends `marker` through the host to every client until the witness has
    // it, then waits for a tick after it there. The index of the witness's
    // copy; npos when either never came.
    std::size_t mark(std::string const& marker) const {
        bool const arrived = nxatest::waitUntil(
            [&] {
                publishSystem("NXAHost", "tester", 34, marker + "\n");
                return nxatest::waitUntil([&] { return firstAfter("witness", marker) != std::string::npos; },
                                          2s);
            },
            kPatience);
        std::size_t const at = firstAfter("witness", marker);
        if (!arrived) return std::string::npos;
        bool const followed =
            nxatest::waitUntil([&] { return firstAfter("witness", "tick", at + 1) != std::string::npos; });
        return followed ? at : std::string::npos;
    }

    // The ticks the viewer has had.
    std::size_t viewerTicks() const {
        std::size_t count = 0;
        for (BusMessage const& m : messages()) {
            if (m.topic != "vlpbus/viewer") continue;
            for (std::size_t at = m.payload.find("tick "); at != std::string::npos;
                 at = m.payload.find("tick ", at + 1))
                ++count;
        }
        return count;
    }

    std::string shown() const { return listing(messages()); }

private:
    BusSubscriber bus_;
};

TEST(HostRun, BusSubscriberGetsOutputAfterStartAndNoneAfterStop) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "talker", "noarch", kTicking)});
    HostProcess host({"talker"});
    ASSERT_TRUE(waitRunning(host, {{"talker", 20100}})) << describe(host);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: bus name NXAHost")) << describe(host);
    WitnessedViewer bus;
    ASSERT_TRUE(bus.start("witness")) << bus.shown() << describe(host);

    // Nothing comes unasked.
    ASSERT_NE(bus.mark("first marker"), std::string::npos) << bus.shown() << describe(host);
    EXPECT_EQ(bus.firstAfter("viewer", ""), std::string::npos) << bus.shown();

    // Asked, output comes and keeps coming.
    ASSERT_TRUE(bus.start("viewer")) << bus.shown() << describe(host);
    std::size_t const first = bus.viewerTicks();
    ASSERT_TRUE(nxatest::waitUntil([&] { return bus.viewerTicks() >= first + 3; }, kPatience)) << bus.shown();

    // Stopped, the viewer gets nothing more: not the marker the host pushes
    // after the stop, nor anything after the witness's copy of it.
    publishSystem("NXAModule_talker", "viewer", 4, "72-NXAStopOutput");
    std::size_t const stopped = bus.mark("second marker");
    ASSERT_NE(stopped, std::string::npos) << bus.shown() << describe(host);
    EXPECT_EQ(bus.firstAfter("viewer", "second marker"), std::string::npos) << bus.shown();
    EXPECT_EQ(bus.firstAfter("viewer", "", stopped), std::string::npos) << bus.shown();
    // The module itself goes on: a TCP client still sees new ticks.
    Background nc(ncCommand(20100));
    ASSERT_TRUE(nc.waitFor("tick")) << nc.output();
    EXPECT_TRUE(host.running());
}

TEST(HostRun, TextOfKind34SentToTheHostsBusNameReachesEveryModulesClientsNotThePrograms) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "one", "noarch", kAnswering),
                    writeModule(sources(), "two", "noarch", kAnswering)});
    HostProcess host({"one", "two"});
    ASSERT_TRUE(waitRunning(host, {{"one", 20100}, {"two", 20101}})) << describe(host);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: bus name NXAHost")) << describe(host);
    Background ncOne(ncCommand(20100), true);
    Background ncTwo(socatCommand(20101), true);
    ASSERT_TRUE(ncOne.waitFor("ready\r\n"));
    ASSERT_TRUE(ncTwo.waitFor("ready\r\n"));

    bool const delivered = nxatest::waitUntil(
        [&] {
            publishSystem("NXAHost", "tester", 34, "notice to all\n");
            return ncOne.waitFor("notice to all\n", 2s);
        },
        kPatience);
    ASSERT_TRUE(delivered) << ncOne.output() << describe(host);
    ASSERT_TRUE(ncTwo.waitFor("notice to all\n")) << ncTwo.output();
    // The text went to the clients as output; the programs read nothing. A
    // line typed after the notice arrived reaches each program after anything
    // the host could have written to its terminal with the notice, so the
    // program's answer to it is its first.
    for (Background* client : {&ncOne, &ncTwo}) {
        client->send("typed after\n");
        ASSERT_TRUE(client->waitFor("got <typed after>\r\n")) << client->output();
        std::string const seen = client->output();
        EXPECT_EQ(seen.find("got <"), seen.find("got <typed after>")) << seen;
    }
}

TEST(HostRun, TheExamplesPackedWithNxapackRun) {
    NXA_REQUIRE_SANDBOX();
    installPackage({examplesDir() + "/clock", examplesDir() + "/echo", examplesDir() + "/greeter"});
    HostProcess host({"clock", "echo", "greeter"});
    ASSERT_TRUE(waitRunning(host, {{"clock", 20100}, {"echo", 20101}, {"greeter", 20102}})) << describe(host);

    Background clock(ncCommand(20100));
    // The pattern's pieces are apart so that no "??-" trigraph forms.
    std::string const timeLine = std::string("clock: ????") + "-??" + "-??" + " ??:??:??\r";
    ASSERT_TRUE(
        nxatest::waitUntil([&] { return countMatchingLines(clock.output(), timeLine) > 0; }, kPatience))
        << clock.output();

    Background echo(ncCommand(20101), true);
    ASSERT_TRUE(echo.waitFor("echo: type a line and press Enter\r\n")) << echo.output();
    echo.send("hello\n");
    ASSERT_TRUE(echo.waitFor("echo: you typed \"hello\"\r\n")) << echo.output();

    Background greeter(ncCommand(20102));
    ASSERT_TRUE(greeter.waitFor("greeter: hello from a module\r\n")) << greeter.output();
}

TEST(HostRun, NamesBeyondMaxModulesAreSkippedWithAWarning) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "first", "noarch", "exec sleep 1000"),
                    writeModule(sources(), "second", "noarch", "exec sleep 1000")});
    HostProcess host({"--max-modules", "1", "first", "second"});
    ASSERT_TRUE(waitRunning(host, {{"first", 20100}})) << describe(host);
    EXPECT_EQ(host.countLine("[WARNING] NXAModules::configure() number of modules exceeded"), 1)
        << describe(host);
    EXPECT_EQ(host.out().find("module second runs"), std::string::npos);
    EXPECT_FALSE(listening(20101));
}

TEST(HostRun, PortNumbersWrapPast65535ToAPortTheSystemChooses) {
    NXA_REQUIRE_SANDBOX();
    installPackage(
        {writeModule(sources(), "last", "noarch", "printf 'last ready\\n'; exec sleep 1000"),
         writeModule(sources(), "wrapped", "noarch", "printf 'wrapped ready\\n'; exec sleep 1000")});
    HostProcess host({"--port", "65535", "last", "wrapped"});
    ASSERT_TRUE(waitRunning(host, {{"last", 65535}})) << describe(host);
    EXPECT_TRUE(
        host.waitForLine("[WARNING] nxahost: module wrapped runs on a port the system chose: the port "
                         "numbers wrapped past 65535"))
        << describe(host);
    EXPECT_EQ(host.out().find("port 0"), std::string::npos) << describe(host);
    Background nc(ncCommand(65535));
    EXPECT_TRUE(nc.waitFor("last ready\n")) << nc.output();
}

TEST(HostRun, MaxModulesZeroRunsNothingAndLeavesThePackageAlone) {
    NXA_REQUIRE_SANDBOX();
    HostProcess host({"--max-modules", "0", "first", "second"});
    ASSERT_TRUE(host.waitForLine("[WARNING] nxahost: no module is running")) << describe(host);
    EXPECT_EQ(host.countLine("[WARNING] NXAModules::configure() number of modules exceeded"), 2)
        << describe(host);
    EXPECT_EQ(host.countLine("[INFO] NXAClient::unpack() no modules configured, ignore not existing "
                             "/var/opt/velmora/.nxahost/install/nxa.zip"),
              1)
        << describe(host);
    EXPECT_TRUE(host.running());
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST(HostRun, PackageDirectoryModulesDirectoryPortAndBusNameComeFromTheOptions) {
    NXA_REQUIRE_SANDBOX();
    std::string const packages = scratchDir() + "/packages";
    ASSERT_EQ(nxatest::shell("mkdir -p " + packages).status, 0);
    nxatest::ShellResult const packed =
        runPack(packages + "/nxa.zip", {writeModule(sources(), "answer", "noarch", kAnswering)});
    ASSERT_EQ(packed.status, 0) << packed.output;
    // The programs always start from /var/opt/velmora/nxa, so the modules
    // directory given is that one, written differently.
    HostProcess host({"--package-dir", packages, "--modules-dir", "/var/opt/velmora/./nxa", "--port", "30000",
                      "--bus-name", "OtherHost", "answer"});
    ASSERT_TRUE(waitRunning(host, {{"answer", 30000}})) << describe(host);
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: bus name OtherHost")) << describe(host);
    // The library installs the host's own copy, kept beside the package.
    EXPECT_EQ(host.countLine("[INFO] NXAClient::unpack() " + packages +
                             "/.nxahost/install/nxa.zip found, continue"),
              1)
        << describe(host);
    Background nc(ncCommand(30000), true);
    ASSERT_TRUE(nc.waitFor("ready\r\n")) << nc.output();
    bool const delivered = nxatest::waitUntil(
        [&] {
            publishSystem("OtherHost", "tester", 34, "to the other host\n");
            return nc.waitFor("to the other host\n", 2s);
        },
        kPatience);
    EXPECT_TRUE(delivered) << nc.output();
}

TEST(HostRun, DebugLevelOneAddsTheLibrarysDebugLines) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "quiet", "noarch", "exec sleep 1000")});
    HostProcess host({"--debug", "1", "quiet"});
    ASSERT_TRUE(waitRunning(host, {{"quiet", 20100}})) << describe(host);
    EXPECT_EQ(host.countLine("[DEBUG] NXAModules::configure() #modulenames=1"), 1) << describe(host);
    EXPECT_EQ(host.countLine("[DEBUG] NXAModules::run() OK, no childs running"), 1) << describe(host);
}

TEST(HostRun, ModuleProgramThatEndsOnItsOwnIsReportedOnce) {
    NXA_REQUIRE_SANDBOX();
    installPackage({writeModule(sources(), "quick", "noarch", "printf 'bye\\n'; exit 3"),
                    writeModule(sources(), "later", "noarch", "printf 'ready\\n'; read -r line; exit 5")});
    HostProcess host({"--restart", "never", "quick", "later"});
    ASSERT_TRUE(waitRunning(host, {{"quick", 20100}, {"later", 20101}})) << describe(host);
    std::string const quickEnded =
        "[WARNING] nxahost: module program quick (pid #) has ended: exit status 3; not restarted";
    ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), quickEnded) > 0; }, kPatience))
        << describe(host);

    Background nc(ncCommand(20101), true);
    ASSERT_TRUE(nc.waitFor("ready\n")) << nc.output();
    nc.send("end now\n");
    std::string const laterEnded =
        "[WARNING] nxahost: module program later (pid #) has ended: exit status 5; not restarted";
    ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), laterEnded) > 0; }, kPatience))
        << describe(host);
    // Another child's end does not repeat the first report.
    EXPECT_EQ(countMatchingLines(host.out(), quickEnded), 1) << describe(host);
    // The ended program's last output stays with the module.
    Background quickClient(ncCommand(20100));
    EXPECT_TRUE(quickClient.waitFor("bye\n[nxahost] program ended: exit status 3; not restarted\n"))
        << quickClient.output();
    EXPECT_TRUE(host.running());
}

}  // namespace
}  // namespace e2e
