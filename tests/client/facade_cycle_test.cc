// The facade over a whole life with real module programs: configure, run
// (installing the package), the host's polling with a TCP client and a bus
// subscriber attached, stop and destruction. What it writes at trace level 0,
// how often it stops each child, and what its run log gives call after call.
// Proc::stop is this binary's own and records every child it is asked to stop.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/proc.h>
#include <vlplatform/system.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture.h"
#include "interpose.h"
#include "loopback_client.h"
#include "module_harness.h"
#include "package_builder.h"
#include "registry_fixture.h"
#include "sandbox.h"

namespace {

// The children Proc::stop was asked to stop, in call order.
std::vector<pid_t> stopped;

}  // namespace

void Proc::stop(pid_t pid) {
    static auto next = nxatest::nextDefinition<void (*)(Proc*, pid_t)>("_ZN4Proc4stopEi");
    stopped.push_back(pid);
    next(this, pid);
}

namespace {

using nxaclienttest::gone;
using nxaclienttest::kConnected;
using nxaclienttest::makeModuleZipRunning;
using nxaclienttest::makePackage;

constexpr char kPackageDir[] = "/var/opt/velmora/pkg";
constexpr char kPackage[] = "/var/opt/velmora/pkg/nxa.zip";
constexpr char kModulesDir[] = "/var/opt/velmora/nxa";
constexpr char kWorkDir[] = "/var/opt/velmora/work";
constexpr unsigned short kFirstPort = 21000;
// Where module "a" of the run-log test waits for the word to print more.
constexpr char kGo[] = "/tmp/nxa-facade-go";

std::string startingLine(std::string const& name, pid_t pid) {
    return "[INFO] NXAModule::exec() pid=" + std::to_string(pid) + ": starting module \"" + name +
           "\", childpid=" + std::to_string(pid) + "\n";
}

using TcpClient = nxatest::LoopbackClient;

class FacadeCycle : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
        ::mkdir(kPackageDir, 0755);
        ::mkdir(kModulesDir, 0755);
        stopped.clear();
    }
    void TearDown() override {
        client.reset();
        NXAClient::debug = 0;
    }

    // The package holding one module per name, each a /bin/sh program `body`.
    void package(std::vector<std::pair<std::string, std::string>> const& modules) {
        std::vector<std::string> zips;
        for (auto const& [name, body] : modules) {
            makeModuleZipRunning(staging.path(), name, "noarch", body);
            zips.push_back(name + ".zip");
        }
        makePackage(staging.path(), kPackage, zips);
    }

    // The facade at trace level `level`, configured with `names`.
    void make(std::vector<std::string> const& names, unsigned level = 0) {
        client =
            std::make_unique<NXAClient>(kPackageDir, kModulesDir, kWorkDir, 0, kFirstPort, 16, "", level);
        client->modules.configure(names);
    }

    // client->run(). A forked copy of this process that leaves run() by an
    // exception ends at once instead of going on with the test.
    void run() {
        pid_t const self = ::getpid();
        try {
            client->run();
        } catch (...) {
            if (::getpid() != self) ::_exit(86);
            throw;
        }
    }

    NXAClient::Module& module(std::string const& name) {
        NXAClient::Module* found = client->modules.find(name);
        EXPECT_NE(found, nullptr) << name;
        return *found;
    }

    // One turn of the host's loop over the facade.
    void pollOnce() {
        FdSet rd, wr;
        client->addFds(rd, wr);
        if (waitFds(rd, wr, 20) < 0) return;
        client->handleInput(rd);
        client->handleOutput(wr);
    }

    bool pollUntil(std::function<bool()> const& condition) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            pollOnce();
        }
        return true;
    }

    // The bytes waiting in the run log of `name`, without taking them.
    std::string logged(std::string const& name) {
        std::string bytes;
        for (auto const& block : module(name).getRunLogPeer()->getQueue()) bytes += block.data->bytes;
        return bytes;
    }

    nxaclienttest::TempDir staging;
    std::unique_ptr<NXAClient> client;
};

TEST_F(FacadeCycle, LevelZeroLifeWithClientsAndSubscribersWritesNoDebugLine) {
    package({{"a", "exec cat"}, {"b", "exec sleep 1000"}});
    nxatest::Capture out;
    {
        make({"a", "b"});
        run();
        TcpClient tcp(kFirstPort);
        tcp.send("typed\n");
        ASSERT_TRUE(pollUntil([&] { return tcp.received().find("typed\n") != std::string::npos; }))
            << tcp.received();

        nxamodtest::BusSubscriber viewer("viewer");
        nxamodtest::publishSystem("NXAModule_b", "viewer", 4, "71-NXAStartOutput");
        ASSERT_TRUE(pollUntil([&] { return NXATestAccess::peers(module("b")).find("viewer") != nullptr; }));
        SystemMessage note;
        note.setKind(34);
        note.setText("note");
        EXPECT_TRUE(client->handle(RouterMessage("viewer", note.clone())));
        ASSERT_TRUE(pollUntil([&] {
            return viewer.output().find(" note\n") != std::string::npos &&
                   tcp.received().find("note") != std::string::npos;
        })) << viewer.output();

        std::string log;
        client->getRunLog(log);
        client->stop();
        client.reset();
    }
    std::string const text = out.release();
    EXPECT_EQ(text.find("[DEBUG] "), std::string::npos) << text;
    EXPECT_EQ(text, "[INFO] NXAClient::NXAClient() totalram=" + std::to_string(getTotalRam()) +
                        " joblimit=536870912\n" + kConnected + kConnected +
                        "[INFO] NXAClient::unpack() /var/opt/velmora/pkg/nxa.zip found, continue\n");
}

TEST_F(FacadeCycle, StopThenDestructionStopsEachChildOnce) {
    package({{"a", "exec sleep 1000"}, {"b", "exec sleep 1000"}});
    nxatest::Capture quiet;
    make({"a", "b"});
    run();
    pid_t const a = module("a").getChildPid(), b = module("b").getChildPid();
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);
    EXPECT_TRUE(stopped.empty());

    client->stop();
    EXPECT_EQ(stopped, (std::vector<pid_t>{a, b}));
    EXPECT_TRUE(gone(a));
    EXPECT_TRUE(gone(b));
    client.reset();
    EXPECT_EQ(stopped, (std::vector<pid_t>{a, b}));
}

TEST_F(FacadeCycle, RunLogGivesTheOutputOnceThenOnlyWhatCameAfter) {
    ASSERT_EQ(::mkfifo(kGo, 0600), 0) << std::strerror(errno);
    package({{"a", std::string("printf 'A'; read word < ") + kGo + "; printf 'again'; exec sleep 1000"},
             {"b", "printf 'B'; exec sleep 1000"}});
    nxatest::Capture quiet;
    make({"a", "b"});
    run();
    std::string const a = startingLine("a", module("a").getChildPid()) + "A";
    std::string const b = startingLine("b", module("b").getChildPid()) + "B";
    ASSERT_TRUE(pollUntil([&] { return logged("a") == a && logged("b") == b; }))
        << logged("a") << "|" << logged("b");

    std::string first = "stale";
    client->getRunLog(first);
    EXPECT_EQ(first, a + b);
    std::string second = "stale";
    client->getRunLog(second);
    EXPECT_EQ(second, "");

    int const go = ::open(kGo, O_WRONLY);
    ASSERT_GE(go, 0) << std::strerror(errno);
    EXPECT_EQ(::write(go, "go\n", 3), 3);
    ::close(go);
    ASSERT_TRUE(pollUntil([&] { return logged("a") == "again"; })) << logged("a");
    std::string third = "stale";
    client->getRunLog(third);
    EXPECT_EQ(third, "again");
    ::unlink(kGo);
}

}  // namespace
