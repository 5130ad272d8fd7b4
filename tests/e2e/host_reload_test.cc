// nxahost's reloads while the package file changes under it: the host checks
// its own copy of the package and installs that copy, so whatever another
// process does to the file, a reload is refused or installs one whole package,
// and the host never ends. An installation that fails after its check puts
// the package that ran before back.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
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

using namespace std::chrono_literals;

std::string sources() {
    return scratchDir() + "/src";
}

std::string program(std::string const& text) {
    return "printf '" + text + "\\n'; exec sleep 100000";
}

// The package file <scratch>/<name>.zip holding m1 and m2, which print
// "<name> m1" and "<name> m2" when they start; without m1 when `withM1` is false.
std::string makePackage(std::string const& name, bool withM1 = true) {
    std::string const folder = sources() + "/" + name;
    std::vector<std::string> modules;
    if (withM1) modules.push_back(writeModule(folder, "m1", "noarch", program(name + " m1")));
    modules.push_back(writeModule(folder, "m2", "noarch", program(name + " m2")));
    std::string const file = scratchDir() + "/" + name + ".zip";
    nxatest::ShellResult const packed = runPack(file, modules);
    EXPECT_EQ(packed.status, 0) << packed.output;
    return file;
}

void deliver(std::string const& file) {
    ASSERT_EQ(nxatest::shell("cp " + file + " " + kPackage).status, 0);
}

// The program file of an installed module.
std::string installedProgram(std::string const& module) {
    return nxatest::shell("cat " + std::string(kModulesDir) + "/" + module + "/" + module).output;
}

class HostReload : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + sources()).status, 0);
    }
    void TearDown() override {
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    // Starts the host on m1 and m2 with the package `file` and waits until both run.
    std::unique_ptr<HostProcess> start(std::string const& file, std::vector<std::string> env = {}) {
        deliver(file);
        auto host = std::make_unique<HostProcess>(std::vector<std::string>{"m1", "m2"}, env);
        EXPECT_TRUE(waitRunning(*host, {{"m1", 20100}, {"m2", 20101}})) << describe(*host);
        return host;
    }

    // Sends 100 SIGHUPs 0.1 s apart; false as soon as the host has ended.
    static bool hupAHundredTimes(HostProcess const& host) {
        for (int i = 0; i < 100; ++i) {
            host.signal(SIGHUP);
            std::this_thread::sleep_for(100ms);
            if (!host.running()) return false;
        }
        return true;
    }

    // Delivers `file` and reloads once more: both modules then serve it.
    static void expectFinalPackageServed(HostProcess& host, std::string const& file) {
        deliver(file);
        host.signal(SIGHUP);
        Background m1(ncCommand(20100));
        Background m2(ncCommand(20101));
        // A client may have connected just before the reload: ask again until it sees the new program.
        EXPECT_TRUE(m1.waitFor("final m1\n") || Background(ncCommand(20100)).waitFor("final m1\n"))
            << m1.output() << describe(host);
        EXPECT_TRUE(m2.waitFor("final m2\n") || Background(ncCommand(20101)).waitFor("final m2\n"))
            << m2.output() << describe(host);
        EXPECT_NE(installedProgram("m1").find("final m1"), std::string::npos) << installedProgram("m1");
        EXPECT_NE(installedProgram("m2").find("final m2"), std::string::npos) << installedProgram("m2");
        EXPECT_TRUE(host.running());
        host.signal(SIGTERM);
        EXPECT_EQ(host.waitExit(), 0) << describe(host);
    }
};

TEST_F(HostReload, APackageRewrittenInPlaceDuringReloadsNeverEndsTheHost) {
    std::string const good = makePackage("good");
    std::string const truncated = scratchDir() + "/truncated.zip";
    ASSERT_EQ(nxatest::shell("head -c 300 " + good + " > " + truncated).status, 0);
    std::string const last = makePackage("final");
    auto host = start(good);
    {
        // Truncates the file and writes it again, as a careless copy does.
        Background writer("while :; do cat " + good + " > " + kPackage + "; cat " + truncated + " > " +
                          kPackage + "; done");
        EXPECT_TRUE(hupAHundredTimes(*host)) << describe(*host);
    }
    EXPECT_GE(host->countLine("[INFO] nxahost: reloading"), 1) << describe(*host);
    EXPECT_EQ(host->out().find("[ERROR] nxahost: cannot unzip"), std::string::npos) << describe(*host);
    expectFinalPackageServed(*host, last);
}

TEST_F(HostReload, RenamesBetweenAGoodPackageAndOneLackingAModuleNeverEndTheHost) {
    std::string const good = makePackage("good");
    std::string const lacking = makePackage("lacking", false);
    std::string const last = makePackage("final");
    auto host = start(good);
    {
        std::string const part = std::string(kPackage) + ".part";
        // Each version is put in place whole, by a rename, as a careful copy does.
        Background writer("while :; do cp " + good + " " + part + "; mv " + part + " " + kPackage + "; cp " +
                          lacking + " " + part + "; mv " + part + " " + kPackage + "; done");
        EXPECT_TRUE(hupAHundredTimes(*host)) << describe(*host);
    }
    // Every reload either installed the good package whole or was refused.
    for (std::string const& line : host->outLines()) {
        if (line.rfind("[ERROR] ", 0) != 0) continue;
        EXPECT_EQ(line.rfind("[ERROR] nxahost: reload refused, the modules keep running: ", 0), 0u) << line;
    }
    expectFinalPackageServed(*host, last);
}

TEST_F(HostReload, AnInstallationThatFailsAfterItsCheckPutsThePackageThatRanBeforeBack) {
    std::string const old = makePackage("old");
    std::string const fresh = makePackage("fresh");
    // Forks 1 and 2 start m1 and m2; the reload's first start (fork 3) fails.
    auto host = start(old, {"LD_PRELOAD=" + faultPreload(), "NXA_E2E_FAIL_FORK=3"});
    Background before(ncCommand(20100));
    ASSERT_TRUE(before.waitFor("old m1\n")) << before.output();
    deliver(fresh);
    host->signal(SIGHUP);
    ASSERT_TRUE(host->waitForLine(
        "[ERROR] nxahost: reload failed: cannot fork: Resource temporarily unavailable; installing the "
        "package that ran before again"))
        << describe(*host);
    ASSERT_TRUE(host->waitForLine(runsOnPortLine("m2", 20101), 2)) << describe(*host);
    Background after(ncCommand(20100));
    EXPECT_TRUE(after.waitFor("old m1\n")) << after.output() << describe(*host);
    EXPECT_NE(installedProgram("m1").find("old m1"), std::string::npos) << installedProgram("m1");
    EXPECT_TRUE(host->running());
    // The package that failed stays delivered: the next reload tries it again.
    host->signal(SIGHUP);
    EXPECT_TRUE(Background(ncCommand(20101)).waitFor("fresh m2\n") ||
                Background(ncCommand(20101)).waitFor("fresh m2\n"))
        << describe(*host);
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(), 0) << describe(*host);
}

TEST_F(HostReload, APackageThatChangesWhileItIsReadIsRefusedWithTheReason) {
    std::string const good = makePackage("good");
    auto host =
        start(good, {"LD_PRELOAD=" + faultPreload(), std::string("NXA_E2E_GROW_WHILE_READ=") + kPackage});
    // From now on, each time the host has read the package to its end, the file grows by a byte.
    nxatest::writeFile(std::string(kPackage) + ".grow", "");
    host->signal(SIGHUP);
    EXPECT_TRUE(host->waitForLine(
        "[ERROR] nxahost: reload refused, the modules keep running: the package changed while it was read"))
        << describe(*host);
    EXPECT_TRUE(host->running());
    EXPECT_EQ(host->countLine(runsOnPortLine("m1", 20100)), 1) << "the modules were left alone";
    Background client(ncCommand(20100));
    EXPECT_TRUE(client.waitFor("good m1\n")) << client.output();
    host->signal(SIGTERM);
    EXPECT_EQ(host->waitExit(), 0) << describe(*host);
}

}  // namespace
}  // namespace e2e
