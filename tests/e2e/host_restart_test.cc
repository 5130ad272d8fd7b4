// Restarts never stop nxahost's loop: a restart asks the old program to end
// and goes on serving the other modules while it does; a program that ignores
// SIGTERM is killed after its grace time by the loop's own deadline; requests
// for a restart already under way join it; a stop ends the host within one
// grace time however many restarts are pending.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include "clients.h"
#include "gap_watcher.h"
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

// Ignores SIGTERM, and so do the commands it runs.
constexpr char kDeaf[] = "trap '' TERM; printf 'deaf\\n'; while :; do sleep 1; done";
// Prints a line every 50 ms.
constexpr char kTicker[] = "while :; do printf 't\\n'; sleep 0.05; done";
// An ordinary shell loop.
constexpr char kLoop[] = "while :; do sleep 0.05; done";

std::string restartRequest(std::string const& module, int id) {
    return R"({"command":"restart","module":")" + module + R"(","id":)" + std::to_string(id) + "}";
}

std::string okAnswer(int id) {
    return R"({"id":)" + std::to_string(id) + R"(,"ok":true})";
}

// How many of the answers to ids first..last are in `output`, one a line.
int answered(std::string const& output, int first, int last) {
    int count = 0;
    for (int id = first; id <= last; ++id) {
        if (output.find(okAnswer(id) + "\n") != std::string::npos) ++count;
    }
    return count;
}

double secondsSince(Clock::time_point then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

class HostRestart : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    }
    void TearDown() override {
        if (host && host->running()) {
            host->signal(SIGTERM);
            EXPECT_EQ(host->waitExit(), 0) << describe(*host);
        }
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    // Starts the host on `restarted` (port 20100) and the ticker (port
    // 20101), with a watcher on the ticker's output.
    void start(std::string const& restartedBody) {
        installPackage({writeModule(sources(), "restarted", "noarch", restartedBody),
                        writeModule(sources(), "ticker", "noarch", kTicker)});
        host = std::make_unique<HostProcess>(std::vector<std::string>{"restarted", "ticker"});
        ASSERT_TRUE(waitRunning(*host, {{"restarted", 20100}, {"ticker", 20101}})) << describe(*host);
        watcher = std::make_unique<GapWatcher>(20101);
        ASSERT_TRUE(watcher->waitFor("t\n", kPatience));
        watcher->startWindow();
    }

    std::unique_ptr<HostProcess> host;
    std::unique_ptr<GapWatcher> watcher;
};

TEST_F(HostRestart, AProgramThatIgnoresSigtermIsRestartedWhileTheOtherModulesGoOn) {
    start(kDeaf);
    BusSubscriber answers("operator");
    auto const asked = Clock::now();
    publishSystem("NXAHost", "operator", 64, restartRequest("restarted", 1));
    ASSERT_TRUE(answers.waitFor(okAnswer(1))) << answers.output() << describe(*host);
    // The answer waits for the new program, which waits for the old one's grace time.
    EXPECT_GE(secondsSince(asked), 0.9);
    EXPECT_EQ(countMatchingLines(host->out(),
                                 "[WARNING] nxahost: module program restarted (pid #) did not end "
                                 "within 1000 ms of SIGTERM; killing it"),
              1)
        << describe(*host);
    EXPECT_LT(watcher->longestGap(), 0.3) << "the ticker's client waited";

    watcher->startWindow();
    for (int id = 2; id <= 21; ++id)
        publishSystem("NXAHost", "operator", 64, restartRequest("restarted", id));
    EXPECT_TRUE(nxatest::waitUntil([&] { return answered(answers.output(), 2, 21) == 20; }, kPatience))
        << answers.output() << describe(*host);
    EXPECT_LT(watcher->longestGap(), 0.5) << "the ticker's client waited";
    EXPECT_EQ(childrenOf(host->pid()).size(), 2u) << "one program for each module: " << strayProcesses();

    // A stop with restarts pending takes one grace time.
    for (int id = 22; id <= 26; ++id)
        publishSystem("NXAHost", "operator", 64, restartRequest("restarted", id));
    auto const stopped = Clock::now();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(), 0) << describe(*host);
    EXPECT_LT(secondsSince(stopped), 3.0) << describe(*host);
}

TEST_F(HostRestart, RestartRequestsForAModuleWhoseRestartIsUnderWayJoinIt) {
    start(kDeaf);
    BusSubscriber answers("operator");
    for (int id = 1; id <= 3; ++id) publishSystem("NXAHost", "operator", 64, restartRequest("restarted", id));
    ASSERT_TRUE(nxatest::waitUntil([&] { return answered(answers.output(), 1, 3) == 3; }, kPatience))
        << answers.output() << describe(*host);
    // Asked for within the old program's grace time, the three make one restart.
    EXPECT_EQ(
        countMatchingLines(host->out(), "[INFO] nxahost: module program restarted started again (pid #)"), 1)
        << describe(*host);
    publishSystem("NXAHost", "operator", 64, restartRequest("nothing", 4));
    EXPECT_TRUE(answers.waitFor(R"({"error":"no module named nothing","id":4,"ok":false})"))
        << answers.output();
}

TEST_F(HostRestart, ARestartStormIsAnsweredInFullWhileTheOtherModulesGoOn) {
    start(kLoop);
    BusSubscriber answers("storm");
    // A thousand restarts, a hundred a second.
    Background storm(
        "for i in $(seq 1 1000); do printf '{\"command\":\"restart\",\"module\":\"restarted\",\"id\":%d}\\n' "
        "$i; "
        "sleep 0.01; done | mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t vlpbus/NXAHost -l "
        "-D publish user-property vlp-sender storm -D publish user-property vlp-type system "
        "-D publish user-property vlp-kind 64");
    EXPECT_EQ(storm.wait(60s), 0) << storm.output();
    EXPECT_TRUE(nxatest::waitUntil([&] { return answered(answers.output(), 1, 1000) == 1000; }, 30s))
        << answered(answers.output(), 1, 1000) << " of 1000 answered" << describe(*host);
    EXPECT_LT(watcher->longestGap(), 0.5) << "the ticker's client waited";
    EXPECT_TRUE(host->running());
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(), 0) << describe(*host);
}

}  // namespace
}  // namespace e2e
