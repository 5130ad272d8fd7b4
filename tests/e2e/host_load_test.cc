// nxahost under load: client churn across modules, a burst of resets,
// descriptor exhaustion, and hundreds of modules under Debian's default
// descriptor limit.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "clients.h"
#include "host_process.h"
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

// Prints a numbered line every tenth of a second.
constexpr char kTicker[] = "i=0; while :; do i=$((i+1)); printf 'tick %d\\n' $i; sleep 0.1; done";
// Prints nothing (the library's "starting module" line comes before it).
constexpr char kQuiet[] = "exec sleep 100000";

std::string startLine(std::string const& name) {
    return "starting module \"" + name + "\"";
}

// User and system CPU time the process has used, in seconds.
double cpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skip;
    for (int i = 3; i < 14; ++i) fields >> skip;
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// A client of a module that notes the longest wait between two arrivals,
// from its first byte on.
class GapWatch {
public:
    explicit GapWatch(unsigned port) : client_(std::make_unique<RawClient>(port)) {
        reader_ = std::thread([this, fd = client_->fd()] { watch(fd); });
    }
    ~GapWatch() {
        stop_ = true;
        reader_.join();
    }
    bool receiving() const { return bytes_ > 0; }
    std::chrono::milliseconds longestGap() const { return std::chrono::milliseconds(longestMs_.load()); }
    std::size_t bytes() const { return bytes_; }

private:
    void watch(int fd) {
        Clock::time_point last{};
        while (!stop_) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            char buf[4096];
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            if (n <= 0) return;
            auto const now = Clock::now();
            if (bytes_ > 0) {
                long gap = std::chrono::duration_cast<std::chrono::milliseconds>(now - last).count();
                if (gap > longestMs_) longestMs_ = gap;
            }
            last = now;
            bytes_ += static_cast<std::size_t>(n);
        }
    }

    std::unique_ptr<RawClient> client_;
    std::thread reader_;
    std::atomic<bool> stop_{false};
    std::atomic<long> longestMs_{0};
    std::atomic<std::size_t> bytes_{0};
};

class HostLoad : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    }
    void TearDown() override {
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    // Writes and installs the modules (name, program body), in order.
    static void install(std::vector<std::pair<std::string, std::string>> const& modules) {
        std::vector<std::string> folders;
        for (auto const& m : modules) folders.push_back(writeModule(sources(), m.first, "noarch", m.second));
        installPackage(folders);
    }

    static void stop(HostProcess& host) {
        host.signal(SIGTERM);
        EXPECT_EQ(host.waitExit(60s), 0) << describe(host);
    }
};

TEST_F(HostLoad, ClientChurnAcrossModulesNeverStallsAWatcher) {
    install({{"alpha", kTicker}, {"beta", kQuiet}});
    HostProcess host({"alpha", "beta"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}, {"beta", 20101}})) << describe(host);
    GapWatch watcher(20100);
    ASSERT_TRUE(nxatest::waitUntil([&] { return watcher.receiving(); })) << describe(host);

    // A client of alpha leaves while a silent one arrives at beta: the number
    // the first one had is handed to the second within the same turn.
    std::unique_ptr<RawClient> silent;
    for (int round = 0; round < 300; ++round) {
        { RawClient passing(20100); }
        silent = std::make_unique<RawClient>(20101);
        ASSERT_TRUE(silent->awaitAnswer()) << "round " << round << describe(host);
    }
    std::size_t const seen = watcher.bytes();
    ASSERT_TRUE(nxatest::waitUntil([&] { return watcher.bytes() > seen + 20; })) << describe(host);
    // Ticks come ten times a second; a second without one is a stall, not a
    // loaded machine.
    EXPECT_LE(watcher.longestGap().count(), 1000) << describe(host);
    EXPECT_TRUE(host.running());
    stop(host);
}

TEST_F(HostLoad, ThreeHundredClientsResettingAtOnceLeaveTheHostServing) {
    install({{"alpha", kTicker}, {"beta", kTicker}});
    HostProcess host({"alpha", "beta"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}, {"beta", 20101}})) << describe(host);
    GapWatch watcher(20101);
    std::vector<std::unique_ptr<RawClient>> rude;
    for (int i = 0; i < 300; ++i) {
        rude.push_back(std::make_unique<RawClient>(20100));
        ASSERT_TRUE(rude.back()->awaitAnswer()) << "client " << i << describe(host);
    }
    for (auto& client : rude) client->reset();

    // Still serving, old clients and new, and no error was written.
    std::size_t const seen = watcher.bytes();
    EXPECT_TRUE(nxatest::waitUntil([&] { return watcher.bytes() > seen + 20; })) << describe(host);
    Background late(ncCommand(20100));
    EXPECT_TRUE(late.waitFor("tick")) << late.output();
    EXPECT_TRUE(host.running());
    EXPECT_EQ(host.out().find("[ERROR]"), std::string::npos) << describe(host);
    stop(host);
}

TEST_F(HostLoad, OutOfDescriptorsTheHostStaysQuietAndServesTheOtherModules) {
    install({{"alpha", kTicker}, {"beta", kQuiet}});
    HostProcess host({"alpha", "beta"}, {}, DescriptorLimit{256, 256});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}, {"beta", 20101}})) << describe(host);
    std::vector<std::unique_ptr<RawClient>> crowd;
    for (int i = 0; i < 300; ++i) {
        crowd.push_back(std::make_unique<RawClient>(20100));
        ASSERT_TRUE(crowd.back()->awaitAnswer()) << "client " << i << describe(host);
    }
    ASSERT_TRUE(nxatest::waitUntil([&] {
        return host.out().find(": out of descriptors (the limit is 256)") != std::string::npos;
    })) << describe(host);

    // Five seconds with the crowd attached and the descriptors used up.
    double const cpuBefore = cpuSeconds(host.pid());
    std::size_t const logBefore = host.out().size();
    std::this_thread::sleep_for(5s);
    EXPECT_LT(cpuSeconds(host.pid()) - cpuBefore, 1.0) << "the host spins";
    EXPECT_LT(host.out().size() - logBefore, 16u * 1024) << describe(host);

    Background other(ncCommand(20101));
    EXPECT_TRUE(other.waitFor(startLine("beta"))) << other.output() << describe(host);

    crowd.clear();
    Background back(ncCommand(20100));
    EXPECT_TRUE(back.waitFor("tick")) << back.output() << describe(host);
    EXPECT_TRUE(host.running());
    stop(host);
}

TEST_F(HostLoad, ThreeHundredModulesAreServedUnderASoftLimitOf1024) {
    std::vector<std::pair<std::string, std::string>> modules;
    std::vector<std::string> args{"--max-modules", "300"};
    for (int i = 0; i < 300; ++i) {
        std::string name = "m" + std::to_string(1000 + i).substr(1);
        modules.emplace_back(name, kQuiet);
        args.push_back(name);
    }
    install(modules);
    HostProcess host(args, {}, DescriptorLimit{1024, 0});
    ASSERT_TRUE(host.waitForLine(runsOnPortLine("m299", 20399), 1, 120s)) << describe(host);
    Background last(ncCommand(20399));
    EXPECT_TRUE(last.waitFor(startLine("m299"))) << last.output();
    stop(host);
}

TEST_F(HostLoad, MoreModulesThanTheHardLimitHoldsAreRefusedBeforeAnyStarts) {
    std::vector<std::pair<std::string, std::string>> modules;
    std::vector<std::string> args{"--max-modules", "300"};
    for (int i = 0; i < 300; ++i) {
        std::string name = "m" + std::to_string(1000 + i).substr(1);
        modules.emplace_back(name, kQuiet);
        args.push_back(name);
    }
    install(modules);
    HostProcess host(args, {}, DescriptorLimit{1024, 1024});
    EXPECT_EQ(host.waitExit(), 1) << describe(host);
    EXPECT_EQ(host.out(), "[ERROR] nxahost: 300 modules need about 1816 descriptors; the limit is 1024\n");
    EXPECT_EQ(host.err(), "");
}

}  // namespace
}  // namespace e2e
