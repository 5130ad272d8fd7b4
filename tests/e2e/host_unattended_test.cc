// nxahost left alone on a device: programs that end are started again with
// back-off while their clients stay, reloads that cannot lose the running
// modules, bus connections that come back, stops that take one grace time,
// a bounded bus message, and bad module names refused.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "clients.h"
#include "host_process.h"
#include "line_patterns.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::string sources() {
    return scratchDir() + "/src";
}

constexpr char kSteady[] = "printf 'steady\\n'; exec sleep 100000";
constexpr char kTicker[] = "i=0; while :; do i=$((i+1)); printf 'tick %d\\n' $i; sleep 0.1; done";

int countOf(std::string const& text, std::string const& part) {
    int n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

std::string startLine(std::string const& module) {
    return "[INFO] NXAModule::exec() pid=#: starting module \"" + module + "\", childpid=#";
}

double secondsBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

class HostUnattended : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    }
    void TearDown() override {
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }
    static void install(std::vector<std::pair<std::string, std::string>> const& modules) {
        std::vector<std::string> folders;
        for (auto const& m : modules) folders.push_back(writeModule(sources(), m.first, "noarch", m.second));
        installPackage(folders);
    }
    static void stop(HostProcess& host) {
        host.signal(SIGTERM);
        EXPECT_EQ(host.waitExit(), 0) << describe(host);
    }
};

TEST_F(HostUnattended, ProgramThatEndsAtOnceIsRestartedWithGrowingGapsAndItsNeighbourIsLeftAlone) {
    install({{"quick", "printf 'run\\n'; exit 1"}, {"steady", kSteady}});
    HostProcess host({"quick", "steady"});
    ASSERT_TRUE(waitRunning(host, {{"quick", 20100}, {"steady", 20101}})) << describe(host);
    Background neighbour(ncCommand(20101));
    ASSERT_TRUE(neighbour.waitFor("steady\n")) << neighbour.output();

    // Both kinds of line are watched together, each noted when it appears.
    std::vector<Clock::time_point> ends, starts;
    nxatest::waitUntil(
        [&] {
            std::string const out = host.out();
            int const ended = countMatchingLines(
                out,
                "[WARNING] nxahost: module program quick (pid #) has ended: exit status 1; restart in # s");
            int const started =
                countMatchingLines(out, "[INFO] nxahost: module program quick started again (pid #)");
            while (static_cast<int>(ends.size()) < ended) ends.push_back(Clock::now());
            while (static_cast<int>(starts.size()) < started) starts.push_back(Clock::now());
            return ended >= 4 && started >= 3;
        },
        30s);
    ASSERT_GE(ends.size(), 4u) << describe(host);
    ASSERT_GE(starts.size(), 3u) << describe(host);
    // Each restart comes 1, 2 and 4 s after the end before it, with up to
    // 20 % more at random, and a second of room for a loaded machine: still
    // short of the next step's gap.
    double const bases[] = {1, 2, 4};
    for (int i = 0; i < 3; ++i) {
        double const gap = secondsBetween(ends[i], starts[i]);
        EXPECT_GE(gap, bases[i] - 0.1) << "restart " << i + 1;
        EXPECT_LE(gap, bases[i] * 1.2 + 1.0) << "restart " << i + 1;
    }
    // The neighbour kept its program (started once) and its client.
    EXPECT_EQ(
        countMatchingLines(host.out(),
                           "[INFO] nxahost: module steady runs on port 20101 (attach: nc 127.0.0.1 20101)"),
        1);
    EXPECT_EQ(countOf(host.out(), "module program steady"), 0) << describe(host);
    publishSystem("NXAHost", "tester", 34, "to everyone\n");
    EXPECT_TRUE(neighbour.waitFor("steady\nto everyone\n")) << neighbour.output();
    stop(host);
}

TEST_F(HostUnattended, AClientStaysAttachedAcrossRestartsAndSeesEachStartAndNotice) {
    install({{"quick", "printf 'run\\n'; exit 2"}});
    HostProcess host({"quick"});
    ASSERT_TRUE(waitRunning(host, {{"quick", 20100}})) << describe(host);
    Background client(ncCommand(20100));
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            return countMatchingLines(host.out(),
                                      "[INFO] nxahost: module program quick started again (pid #)") >= 3;
        },
        30s))
        << describe(host);
    ASSERT_TRUE(nxatest::waitUntil([&] {
        return countMatchingLines(client.output(), startLine("quick")) >= 4;
    })) << client.output();
    std::string const out = client.output();
    EXPECT_NE(out.find("run\n[nxahost] program ended: exit status 2; restart in 1 s\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("run\n[nxahost] program ended: exit status 2; restart in 2 s\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("run\n[nxahost] program ended: exit status 2; restart in 4 s\n"), std::string::npos)
        << out;
    stop(host);
}

TEST_F(HostUnattended, OnFailureRestartsAFailureOnlyNeverNothingAlwaysEverything) {
    install({{"fails", "printf 'x\\n'; exit 1"}, {"succeeds", "printf 'y\\n'; exit 0"}});
    {
        HostProcess host({"fails", "succeeds"});
        std::string const succeedsEnded =
            "[WARNING] nxahost: module program succeeds (pid #) has ended: exit status 0; not restarted";
        ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), succeedsEnded) == 1; }))
            << describe(host);
        // Both ended at once; by the second restart of the failing one, the
        // other would have been started again too.
        ASSERT_TRUE(nxatest::waitUntil([&] {
            return countOf(host.out(), "program fails started again") >= 2;
        })) << describe(host);
        EXPECT_EQ(countOf(host.out(), "program succeeds started again"), 0) << describe(host);
        stop(host);
    }
    {
        HostProcess host({"--restart", "always", "fails", "succeeds"});
        EXPECT_TRUE(nxatest::waitUntil([&] {
            return countOf(host.out(), "program succeeds started again") >= 1;
        })) << describe(host);
        stop(host);
    }
    {
        HostProcess host({"--restart", "never", "fails", "succeeds"});
        std::string const failsEnded =
            "[WARNING] nxahost: module program fails (pid #) has ended: exit status 1; not restarted";
        ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), failsEnded) == 1; }))
            << describe(host);
        stop(host);
        EXPECT_EQ(countOf(host.out(), "started again"), 0) << describe(host);
    }
}

TEST_F(HostUnattended, AProgramKilledByASignalCountsAsAFailure) {
    install({{"victim", "printf 'ready\\n'; kill -9 $$"}});
    HostProcess host({"victim"});
    EXPECT_TRUE(nxatest::waitUntil([&] {
        return countMatchingLines(
                   host.out(),
                   "[WARNING] nxahost: module program victim (pid #) has ended: signal 9; restart in 1 s") >=
               1;
    })) << describe(host);
    stop(host);
}

TEST_F(HostUnattended, HupWithABadPackageOrWithoutABrokerKeepsTheModulesAndAGoodOneReplacesThem) {
    install({{"alpha", kSteady}, {"beta", kSteady}});
    HostProcess host({"alpha", "beta"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}, {"beta", 20101}})) << describe(host);
    Background client(ncCommand(20100));
    ASSERT_TRUE(client.waitFor("steady\n")) << client.output();
    std::string const refused = "[ERROR] nxahost: reload refused, the modules keep running: ";

    // A corrupt package.
    nxatest::writeFile(kPackage, "this is no zip archive");
    host.signal(SIGHUP);
    ASSERT_TRUE(host.waitForLine(refused + "/var/opt/velmora/nxa.zip cannot be unpacked")) << describe(host);
    // A package without one of the modules.
    install({{"alpha", kSteady}});
    host.signal(SIGHUP);
    ASSERT_TRUE(host.waitForLine(refused + "the package holds no module beta")) << describe(host);
    // No broker.
    install({{"alpha", kSteady}, {"beta", kSteady}});
    nxatest::brokerStop();
    ASSERT_TRUE(host.waitForLine("[WARNING] nxahost: the bus broker has gone; reconnecting"))
        << describe(host);
    host.signal(SIGHUP);
    ASSERT_TRUE(host.waitForLine(refused + "the bus broker on 127.0.0.1:20010 does not answer"))
        << describe(host);
    nxatest::brokerStart();
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: bus connection established as NXAHost")) << describe(host);

    // Through all that, the programs were started once and the client stayed.
    EXPECT_EQ(countMatchingLines(client.output(), startLine("alpha")), 1) << client.output();
    EXPECT_TRUE(host.running());

    // A good package replaces them.
    install({{"alpha", "printf 'new alpha\\n'; exec sleep 100000"}, {"beta", kSteady}});
    host.signal(SIGHUP);
    ASSERT_TRUE(
        host.waitForLine("[INFO] nxahost: module alpha runs on port 20100 (attach: nc 127.0.0.1 20100)", 2))
        << describe(host);
    Background fresh(ncCommand(20100));
    EXPECT_TRUE(fresh.waitFor("new alpha\n")) << fresh.output();
    stop(host);
}

TEST_F(HostUnattended, SubscribersGetOutputAgainAfterTheBrokerWasAwayForFiveSeconds) {
    install({{"ticker", kTicker}});
    HostProcess host({"ticker"});
    ASSERT_TRUE(waitRunning(host, {{"ticker", 20100}})) << describe(host);
    BusSubscriber viewer("viewer");
    ASSERT_TRUE(nxatest::waitUntil([&] {
        publishSystem("NXAModule_ticker", "viewer", 4, "71-NXAStartOutput");
        return viewer.waitFor("tick", 2s);
    })) << describe(host);

    nxatest::brokerStop();
    ASSERT_TRUE(host.waitForLine("[WARNING] NXAModule::handleInput() VLPBus server is gone"))
        << describe(host);
    std::this_thread::sleep_for(5s);  // the outage itself
    nxatest::brokerStart();
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: module ticker: bus connection established again"))
        << describe(host);
    // mosquitto_sub connects again by itself; the module's subscriber was kept.
    std::size_t const before = viewer.output().size();
    EXPECT_TRUE(nxatest::waitUntil([&] {
        return viewer.output().size() > before && viewer.output().find("tick", before) != std::string::npos;
    })) << viewer.output()
        << describe(host);
    stop(host);
}

TEST_F(HostUnattended, FourProgramsIgnoringSigtermStopInAboutOneGraceTime) {
    std::string const deaf = "trap '' TERM; printf 'deaf\\n'; while :; do sleep 1; done";
    install({{"d0", deaf}, {"d1", deaf}, {"d2", deaf}, {"d3", deaf}});
    HostProcess host({"d0", "d1", "d2", "d3"});
    ASSERT_TRUE(waitRunning(host, {{"d0", 20100}, {"d1", 20101}, {"d2", 20102}, {"d3", 20103}}))
        << describe(host);
    for (unsigned port = 20100; port <= 20103; ++port) {
        Background c(ncCommand(port));
        ASSERT_TRUE(c.waitFor("deaf\n")) << c.output();
    }
    auto const start = Clock::now();
    host.signal(SIGTERM);
    ASSERT_EQ(host.waitExit(), 0) << describe(host);
    double const took = secondsBetween(start, Clock::now());
    EXPECT_GE(took, 1.0);
    EXPECT_LT(took, 4.0) << "one grace time each would take four";
}

TEST_F(HostUnattended, TheHostsBusTakesMessagesUpTo64KiBAndDropsBiggerOnes) {
    install({{"steady", kSteady}});
    HostProcess host({"steady"});
    ASSERT_TRUE(waitRunning(host, {{"steady", 20100}})) << describe(host);
    Background client(ncCommand(20100));
    ASSERT_TRUE(client.waitFor("steady\n")) << client.output();
    std::string const big = scratchDir() + "/big.txt";
    nxatest::writeFile(big, std::string(1 << 20, 'B'));
    std::string const fits = scratchDir() + "/fits.txt";
    nxatest::writeFile(fits, std::string(60 * 1024, 'F'));
    auto send = [](std::string const& file) {
        std::string const command =
            "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t vlpbus/NXAHost -f " + file +
            " -D publish user-property vlp-sender tester -D publish user-property vlp-type system"
            " -D publish user-property vlp-kind 34";
        ASSERT_EQ(nxatest::shell(command).status, 0);
    };
    send(big);
    send(fits);
    publishSystem("NXAHost", "tester", 34, "marker\n");
    ASSERT_TRUE(client.waitFor("marker\n")) << describe(host);
    std::string const out = client.output();
    EXPECT_EQ(out.find('B'), std::string::npos) << "the 1 MiB message reached the module's clients";
    EXPECT_NE(out.find(std::string(60 * 1024, 'F')), std::string::npos);
    stop(host);
}

TEST_F(HostUnattended, ModuleNamesThatLeaveTheModulesTreeAreRefused) {
    for (std::string const name : {"..", ".", "a/b", "", "/etc"}) {
        HostProcess host({"ok", name});
        EXPECT_EQ(host.waitExit(), 2) << name;
        EXPECT_EQ(host.err(), "nxahost: module name '" + name +
                                  "' is empty, '.', '..' or holds a '/'\n"
                                  "Try 'nxahost --help' for more information.\n");
        EXPECT_EQ(host.out(), "");
    }
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

// A second network namespace ("a client's machine") joined to the sandbox's by
// a veth pair: the host's end 10.77.0.1, the client's 10.77.0.2.
class ClientMachine {
public:
    ClientMachine() {
        ok_ = nxatest::shell(
                  "ip netns add nxaclient && ip link add nxa0 type veth peer name nxa1 && "
                  "ip link set nxa1 netns nxaclient && ip addr add 10.77.0.1/24 dev nxa0 && "
                  "ip link set nxa0 up && ip netns exec nxaclient ip addr add 10.77.0.2/24 dev nxa1 && "
                  "ip netns exec nxaclient ip link set nxa1 up && "
                  "ip netns exec nxaclient ip link set lo up")
                  .status == 0;
    }
    ~ClientMachine() { nxatest::shell("ip link del nxa0; ip netns del nxaclient"); }
    bool ok() const { return ok_; }
    // Cuts the link: nothing passes any more, and nobody says so.
    void cut() const { nxatest::shell("ip link set nxa0 down"); }

private:
    bool ok_ = false;
};

TEST_F(HostUnattended, AClientWhoseLinkIsCutIsDroppedWithinTheTimeout) {
    install({{"ticker", kTicker}});
    ClientMachine machine;
    ASSERT_TRUE(machine.ok());
    HostProcess host({"--client-timeout", "3", "ticker"});
    ASSERT_TRUE(waitRunning(host, {{"ticker", 20100}})) << describe(host);
    Background far("exec ip netns exec nxaclient nc 10.77.0.1 20100");
    ASSERT_TRUE(far.waitFor("tick")) << far.output();
    machine.cut();
    auto const cutAt = Clock::now();
    // Seen by a read or by a write, whichever comes first.
    auto lost = [&] {
        std::string const out = host.out();
        return countMatchingLines(out,
                                  "[INFO] nxahost: connection telnet:# lost: cannot read from telnet:#: "
                                  "Connection timed out") +
               countMatchingLines(out,
                                  "[INFO] nxahost: connection telnet:# lost: cannot write to telnet:#: "
                                  "Connection timed out");
    };
    ASSERT_TRUE(nxatest::waitUntil([&] { return lost() == 1; }, 30s)) << describe(host);
    double const after = secondsBetween(cutAt, Clock::now());
    EXPECT_GE(after, 2.5);
    // Without the time-out the system would go on trying for many minutes.
    EXPECT_LE(after, 12.0) << "dropped long after the time-out";
    // The host serves on.
    Background near(ncCommand(20100));
    EXPECT_TRUE(near.waitFor("tick")) << near.output();
    stop(host);
}

}  // namespace
}  // namespace e2e
