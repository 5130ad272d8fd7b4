// The host killed with SIGKILL at twenty points of an installation and of a
// rollback (before its k-th file-system step, through the fault library):
// once the programs it left are gone too (as the service manager sees to),
// the next host serves one complete package, every module's files from the
// same one, and the last good copy is still there, unchanged.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "clients.h"
#include "host_process.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"
#include "signed_packages.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

constexpr char kDevice[] = "/var/opt/velmora";
constexpr char kGoodCopies[] = "/var/opt/velmora/.nxahost/good";
constexpr int kPointsPerRun = 10;

std::string steady(std::string const& text) {
    return "printf '" + text + "\\n'; exec sleep 100000";
}

class HostPowerCut : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + keys()).status, 0);
        makeKeyPair("release", keys());
        std::string const one =
            packVersion("one", "1.0", {{"m1", steady("m1 one")}, {"m2", steady("m2 one")}});
        signWithMinisign(one, "release");
        deliver(one);
        // The device as it is after the first package passed its probation.
        HostProcess first(hostArgs({"--probation", "1"}));
        ASSERT_TRUE(
            first.waitForLine("[INFO] nxahost: package 1.0 passed its probation: it is the last good "
                              "package now"))
            << describe(first);
        first.signal(SIGTERM);
        ASSERT_EQ(first.waitExit(), 0) << describe(first);
        ASSERT_EQ(nxatest::shell("cp -a " + std::string(kDevice) + " " + seed()).status, 0);
        goodCopy_ = goodCopies();
        ASSERT_EQ(goodCopy_.size(), 1u);
    }
    void TearDown() override {
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    static std::string keys() { return scratchDir() + "/keys"; }
    static std::string seed() { return scratchDir() + "/seed"; }
    static std::string armed() { return scratchDir() + "/armed"; }
    static std::string stepLog() { return scratchDir() + "/steps"; }
    static std::vector<std::string> hostArgs(std::vector<std::string> extra) {
        std::vector<std::string> args = {"--trusted-keys", keys(), "--web", "off"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.insert(args.end(), {"m1", "m2"});
        return args;
    }
    // The good copies as "<name> <sha256>" lines.
    static std::set<std::string> goodCopies() {
        std::string const listed =
            nxatest::shell("cd " + std::string(kGoodCopies) + " && sha256sum *.zip").output;
        std::set<std::string> copies;
        std::istringstream in(listed);
        for (std::string line; std::getline(in, line);) copies.insert(line);
        return copies;
    }
    // The device as the seed left it.
    static void restore() {
        ASSERT_EQ(nxatest::shell("rm -rf " + std::string(kDevice) + " /tmp/nxa && cp -a " + seed() + " " +
                                 kDevice + " && rm -f " + armed() + " " + stepLog())
                      .status,
                  0);
    }
    // A host that counts its file-system steps from the reload of `package`
    // on, and dies before step `killAt`; the reload is asked for.
    static std::unique_ptr<HostProcess> reloadDyingAt(int killAt, std::string const& package,
                                                      std::vector<std::string> const& extra) {
        auto host = std::make_unique<HostProcess>(
            hostArgs(extra),
            std::vector<std::string>{"LD_PRELOAD=" + faultPreload(),
                                     "NXA_E2E_KILL_AT_STEP=" + std::to_string(killAt),
                                     "NXA_E2E_STEPS_WHILE=" + armed(), "NXA_E2E_STEP_LOG=" + stepLog()});
        EXPECT_TRUE(waitRunning(*host, {{"m1", 20100}, {"m2", 20101}})) << describe(*host);
        deliver(package);
        nxatest::writeFile(armed(), "");
        host->signal(SIGHUP);
        return host;
    }
    static int stepsTaken() {
        std::string const log = nxatest::readFile(stepLog());
        return static_cast<int>(std::count(log.begin(), log.end(), '\n'));
    }
    // After the host died at `killAt`, a host that starts serves one complete
    // package (one of `allowed`), and the last good copy is the seed's.
    void expectOnePackageAfterKillAt(int killAt, std::vector<std::string> const& allowed) {
        SCOPED_TRACE("killed before file-system step " + std::to_string(killAt));
        std::remove(armed().c_str());
        HostProcess next(hostArgs({"--probation", "60", "--probation-failures", "1"}));
        std::string generation;
        bool const settled = nxatest::waitUntil(
            [&] {
                std::string const m1 = nxatest::readFile(std::string(kModulesDir) + "/m1/m1");
                std::string const m2 = nxatest::readFile(std::string(kModulesDir) + "/m2/m2");
                for (std::string const& g : allowed) {
                    if (m1.find("m1 " + g) != std::string::npos && m2.find("m2 " + g) != std::string::npos &&
                        Background(ncCommand(20100)).waitFor("m1 " + g + "\n", 2s) &&
                        Background(ncCommand(20101)).waitFor("m2 " + g + "\n", 2s)) {
                        generation = g;
                        return true;
                    }
                }
                return false;
            },
            kPatience);
        EXPECT_TRUE(settled) << describe(next);
        EXPECT_EQ(goodCopies(), goodCopy_) << "the last good copy is kept as it was";
        next.signal(SIGTERM);
        EXPECT_EQ(next.waitExit(), 0) << describe(next);
    }
    // Kills a reload of `package` at ten points spread over its steps (counted
    // once in a run that is not killed, until m2 runs for the `runs`-th time).
    void killAtTenPoints(std::string const& package, std::vector<std::string> const& extra, int runs,
                         std::vector<std::string> const& allowed) {
        restore();
        int total = 0;
        {
            std::unique_ptr<HostProcess> whole = reloadDyingAt(1 << 30, package, extra);
            ASSERT_TRUE(whole->waitForLine(runsOnPortLine("m2", 20101), runs)) << describe(*whole);
            total = stepsTaken();
            whole->signal(SIGTERM);
            ASSERT_EQ(whole->waitExit(), 0) << describe(*whole);
        }
        ASSERT_GE(total, kPointsPerRun) << nxatest::readFile(stepLog());
        for (int point = 0; point < kPointsPerRun; ++point) {
            int const killAt = 1 + point * (total - 1) / (kPointsPerRun - 1);
            restore();
            std::unique_ptr<HostProcess> dying = reloadDyingAt(killAt, package, extra);
            ASSERT_EQ(dying->waitExit(), 128 + SIGKILL) << "step " << killAt << " of " << total << "\n"
                                                        << describe(*dying);
            // What the service manager does once the host is gone: the
            // programs, which hold the host's sockets, go with it.
            killStrayProcesses();
            ASSERT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
                << strayProcesses();
            expectOnePackageAfterKillAt(killAt, allowed);
        }
    }

    std::set<std::string> goodCopy_;
};

TEST_F(HostPowerCut, KilledDuringAnInstallationTheNextHostRunsOnePackageWhole) {
    std::string const two = packVersion("two", "2.0", {{"m1", steady("m1 two")}, {"m2", steady("m2 two")}});
    signWithMinisign(two, "release");
    // Started, then installed by the reload.
    killAtTenPoints(two, {"--probation", "60"}, 2, {"one", "two"});
}

TEST_F(HostPowerCut, KilledDuringARollbackTheNextHostRunsTheLastGoodPackageWhole) {
    std::string const failing =
        packVersion("failing", "2.0", {{"m1", "printf 'm1 two\\n'; exit 1"}, {"m2", steady("m2 two")}});
    signWithMinisign(failing, "release");
    // Started, installed by the reload, then rolled back.
    killAtTenPoints(failing, {"--probation", "60", "--probation-failures", "1"}, 3, {"one"});
}

}  // namespace
}  // namespace e2e
