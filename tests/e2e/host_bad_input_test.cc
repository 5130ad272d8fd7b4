// nxahost on bad input: packages that are missing, damaged or wrongly laid
// out, clients that reset their connection or never read, and no broker at
// all. Each gives the library's behaviour, one clear line from the host, and
// writes nothing outside the modules directory, /tmp/nxa and the host's own
// copies of the package.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <thread>

#include "clients.h"
#include "host_process.h"
#include "line_patterns.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"
#include "tree_snapshot.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

std::string sources() {
    return scratchDir() + "/src";
}
std::string staging() {
    return scratchDir() + "/staging";
}

constexpr char kReady[] = "printf 'ready\\n'; while :; do sleep 1; done";
constexpr char kConnected[] = "[INFO] NXAModule::Module() connection to VLPBus server established";
// The check of a package file that is no zip archive (its copy, incoming.zip).
constexpr char kNotAZip[] =
    "[WARNING] zipper::unZipWithDirs() /var/opt/velmora/.nxahost/incoming.zip -> "
    "/var/opt/velmora/.nxahost/check/package: failed: cannot open /var/opt/velmora/.nxahost/incoming.zip: "
    "Not a zip archive";
// Without a trusted key the host says first that it does not check packages.
constexpr char kUnchecked[] =
    "[WARNING] nxahost: packages are not checked: no trusted key in /etc/nxahost/trusted-keys.d "
    "(--trusted-keys)";

// The host's standard output after its warning about unchecked packages and
// the facade's first line, which are expected in that order.
std::vector<std::string> linesAfterTheStart(HostProcess const& host) {
    std::vector<std::string> out = host.outLines();
    EXPECT_GE(out.size(), 2u) << describe(host);
    if (out.size() < 2) return {};
    EXPECT_EQ(out[0], kUnchecked);
    EXPECT_EQ(out[1].rfind("[INFO] NXAClient::NXAClient() totalram=", 0), 0u) << out[1];
    return {out.begin() + 2, out.end()};
}

class HostBadInput : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + staging() + " " + sources()).status, 0);
        // A module installed by an earlier run.
        writeModule(kModulesDir, "earlier", "noarch", "exit 0");
    }

    // Zips the module folder <sources>/<name> (its contents at the top) into
    // <staging>/<name>.zip.
    void zipModule(std::string const& name, std::string const& entries) {
        zipIn(sources() + "/" + name, staging() + "/" + name + ".zip", entries);
    }

    void startWatching() {
        before_ = snapshot({"/var/opt/velmora", "/tmp"},
                           {scratchDir(), nxatest::backgroundDir(), "/tmp/.nxa-sandbox"});
    }

    std::string writtenOutside() const {
        return changesOutside(before_,
                              snapshot({"/var/opt/velmora", "/tmp"},
                                       {scratchDir(), nxatest::backgroundDir(), "/tmp/.nxa-sandbox"}),
                              {kModulesDir, kUnpackDir, kStateDir});
    }

    // Runs the host on `modules` to its end and expects status 1, standard
    // output after the warning and the facade's first line to be exactly `lines`, nothing on
    // standard error, no process left and nothing written outside.
    void expectSetupFailure(std::vector<std::string> const& modules, std::vector<std::string> const& lines) {
        startWatching();
        HostProcess host(modules);
        ASSERT_EQ(host.waitExit(), 1) << describe(host);
        EXPECT_EQ(linesAfterTheStart(host), lines) << describe(host);
        EXPECT_EQ(host.out().back(), '\n');
        EXPECT_EQ(host.err(), "");
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
        EXPECT_EQ(writtenOutside(), "");
    }

private:
    Tree before_;
};

TEST_F(HostBadInput, MissingPackageEndsTheHostAndLeavesTheModulesDirectoryAlone) {
    expectSetupFailure(
        {"alpha"},
        {kConnected, "[ERROR] nxahost: /var/opt/velmora/nxa.zip does not exist: No such file or directory"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(listDir(kUnpackDir), std::vector<std::string>{});
}

TEST_F(HostBadInput, ATakenModulePortStopsTheHostBeforeAnyModuleIsMade) {
    installPackage({writeModule(sources(), "alpha", "noarch", kReady),
                    writeModule(sources(), "beta", "noarch", kReady)});
    Background listener("nc -l 127.0.0.1 20101");
    ASSERT_TRUE(nxatest::waitUntil([] { return nxatest::shell("ss -Hltn 'sport = :20101'").output != ""; },
                                   kPatience));
    startWatching();
    HostProcess host({"alpha", "beta"});
    ASSERT_EQ(host.waitExit(), 1) << describe(host);
    EXPECT_EQ(linesAfterTheStart(host),
              std::vector<std::string>{
                  "[ERROR] nxahost: port 20101 for module beta is in use: Address already in use"})
        << describe(host);
    EXPECT_EQ(host.err(), "");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(writtenOutside(), "");
}

TEST_F(HostBadInput, TruncatedPackageIsRefusedBeforeTheModulesDirectoryIsTouched) {
    installPackage({writeModule(sources(), "alpha", "noarch", kReady)});
    std::string const whole = nxatest::readFile(kPackage);
    nxatest::writeFile(kPackage, whole.substr(0, whole.size() / 2));
    expectSetupFailure(
        {"alpha"}, {kConnected, kNotAZip, "[ERROR] nxahost: /var/opt/velmora/nxa.zip cannot be unpacked"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(listDir(kUnpackDir), std::vector<std::string>{});
}

TEST_F(HostBadInput, PackageThatIsNoZipIsRefusedAndEndsTheHost) {
    nxatest::writeFile(kPackage, "this is not a zip archive\n");
    expectSetupFailure(
        {"alpha"}, {kConnected, kNotAZip, "[ERROR] nxahost: /var/opt/velmora/nxa.zip cannot be unpacked"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
}

TEST_F(HostBadInput, InnerArchiveThatDoesNotUnpackRefusesThePackageAndNamesItsModule) {
    writeModule(sources(), "alpha", "noarch", kReady);
    zipModule("alpha", "Manifest alpha");
    nxatest::writeFile(staging() + "/broken.zip", "this is not a zip archive\n");
    zipIn(staging(), kPackage, "alpha.zip broken.zip");
    expectSetupFailure(
        {"alpha", "broken"},
        {kConnected, kConnected,
         "[WARNING] zipper::unZipWithDirs() /var/opt/velmora/.nxahost/check/package/broken.zip -> "
         "/var/opt/velmora/.nxahost/check/modules/broken: failed: cannot open "
         "/var/opt/velmora/.nxahost/check/package/broken.zip: Not a zip archive",
         "[ERROR] nxahost: module broken cannot be unpacked"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(listDir(kUnpackDir), std::vector<std::string>{});
}

TEST_F(HostBadInput, InnerArchiveOfAModuleNotNamedOnlyWarnsAndTheOthersRun) {
    writeModule(sources(), "alpha", "noarch", kReady);
    zipModule("alpha", "Manifest alpha");
    nxatest::writeFile(staging() + "/broken.zip", "this is not a zip archive\n");
    zipIn(staging(), kPackage, "alpha.zip broken.zip");
    startWatching();
    HostProcess host({"alpha"});
    // The open warning line is continued by the host's next line.
    ASSERT_TRUE(
        host.waitForLine("[WARNING] NXAClient::unpack() cannot unzip /tmp/nxa/broken.zip to "
                         "/var/opt/velmora/nxa/broken" +
                         runsOnPortLine("alpha", 20100)))
        << describe(host);
    Background nc(ncCommand(20100));
    EXPECT_TRUE(nc.waitFor("ready\n")) << nc.output();
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
    EXPECT_EQ(writtenOutside(), "");
}

TEST_F(HostBadInput, ZipSlipEntryRefusesThePackageAndWritesNothingOutside) {
    writeModule(sources(), "alpha", "noarch", kReady);
    zipModule("alpha", "Manifest alpha");
    writeModule(sources(), "slip", "noarch", kReady);
    nxatest::writeFile(scratchDir() + "/escaped", "escaped\n");
    // From <sources>/slip, ../../escaped is the file above; unpacked in a
    // module's folder it would land beside that folder's parent.
    zipModule("slip", "Manifest slip ../../escaped");
    nxatest::ShellResult const listing = nxatest::shell("unzip -Z1 " + staging() + "/slip.zip");
    ASSERT_NE(listing.output.find("../../escaped"), std::string::npos) << listing.output;
    zipIn(staging(), kPackage, "alpha.zip slip.zip");
    expectSetupFailure(
        {"alpha", "slip"},
        {kConnected, kConnected,
         "[WARNING] zipper::unZipWithDirs() /var/opt/velmora/.nxahost/check/package/slip.zip -> "
         "/var/opt/velmora/.nxahost/check/modules/slip: failed: refused entry \"../../escaped\": "
         "\"..\" component",
         "[ERROR] nxahost: module slip cannot be unpacked"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(listDir("/var/opt/velmora"), (std::vector<std::string>{".nxahost", "nxa", "nxa.zip"}));
}

TEST_F(HostBadInput, ModuleWithoutManifestIsRefusedAndEndsTheHost) {
    writeModule(sources(), "alpha", "noarch", kReady);
    zipModule("alpha", "alpha");
    zipIn(staging(), kPackage, "alpha.zip");
    expectSetupFailure({"alpha"}, {kConnected, "[ERROR] nxahost: module alpha has no readable Manifest"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
}

TEST_F(HostBadInput, PackageWithAFolderInsteadOfArchivesInstallsNothing) {
    writeModule(sources(), "alpha", "noarch", kReady);
    zipIn(sources(), kPackage, "alpha");
    expectSetupFailure({"alpha"}, {kConnected, "[ERROR] nxahost: the package holds no module alpha"});
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
    EXPECT_EQ(listDir(kUnpackDir), std::vector<std::string>{});
}

TEST_F(HostBadInput, HupWithThePackageGoneKeepsTheModulesRunning) {
    installPackage({writeModule(sources(), "alpha", "noarch", "printf 'ready\\n'; exec sleep 1000")});
    HostProcess host({"alpha"});
    ASSERT_TRUE(waitRunning(host, {{"alpha", 20100}})) << describe(host);
    Background nc(ncCommand(20100));
    ASSERT_TRUE(nc.waitFor("ready\n")) << nc.output();
    ASSERT_EQ(nxatest::shell(std::string("rm ") + kPackage).status, 0);
    host.signal(SIGHUP);
    std::string const refused =
        "[ERROR] nxahost: reload refused, the modules keep running: "
        "/var/opt/velmora/nxa.zip does not exist: No such file or directory";
    ASSERT_TRUE(host.waitForLine(refused)) << describe(host);
    EXPECT_TRUE(host.running());
    // The program was left alone: started once, and its client still attached.
    EXPECT_EQ(countMatchingLines(
                  host.out(), "[INFO] nxahost: module alpha runs on port 20100 (attach: nc 127.0.0.1 20100)"),
              1);
    publishSystem("NXAHost", "tester", 34, "still here\n");
    EXPECT_TRUE(nc.waitFor("ready\nstill here\n")) << nc.output() << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST_F(HostBadInput, ClientThatResetsItsConnectionIsOneInfoLineAndTheHostServesTheOthers) {
    installPackage({writeModule(sources(), "talker", "noarch",
                                "i=0; while :; do i=$((i+1)); printf 'tick %d\\n' $i; sleep 0.1; done")});
    HostProcess host({"talker"});
    ASSERT_TRUE(waitRunning(host, {{"talker", 20100}})) << describe(host);
    Background steady(ncCommand(20100));
    ASSERT_TRUE(steady.waitFor("tick")) << steady.output();
    {
        RawClient rude(20100);
        ASSERT_TRUE(rude.receive(1));
        rude.reset();
    }
    std::string const reported =
        "[INFO] nxahost: connection telnet:# lost: cannot read from telnet:#: Connection reset by peer";
    ASSERT_TRUE(nxatest::waitUntil([&] { return countMatchingLines(host.out(), reported) > 0; }, kPatience))
        << describe(host);
    // The others are still served, old and new.
    std::size_t const seen = steady.output().size();
    EXPECT_TRUE(nxatest::waitUntil([&] { return steady.output().size() > seen + 20; }, kPatience));
    Background late(ncCommand(20100));
    EXPECT_TRUE(late.waitFor("tick")) << late.output();
    EXPECT_TRUE(host.running());
    EXPECT_EQ(countMatchingLines(host.out(), reported), 1) << describe(host);
    EXPECT_EQ(host.out().find("[ERROR]"), std::string::npos) << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST_F(HostBadInput, AClientThatTypesIntoCatWithoutReadingAndLeavesCostsOneLineAndNoMemory) {
    installPackage({writeModule(sources(), "cat", "noarch", "exec cat")});
    HostProcess host({"cat"}, {kNoAllocatorQuarantine});
    ASSERT_TRUE(waitRunning(host, {{"cat", 20100}})) << describe(host);
    long const before = residentKiB(host.pid());
    {
        RawClient typist(20100, 4096);
        std::string const block(64 * 1024, 'x');
        for (int i = 0; i < 256; ++i) {
            ASSERT_EQ(::send(typist.fd(), block.data(), block.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(block.size()));
        }
        // Closed with its echo unread: the host's next write or read fails.
    }
    std::string const lost = "[INFO] nxahost: connection telnet:# lost: #";
    auto lostLines = [&] {
        int count = 0;
        for (std::string const& line : host.outLines()) {
            if (line.rfind("[INFO] nxahost: connection telnet:", 0) == 0 &&
                line.find(" lost: ") != std::string::npos)
                ++count;
        }
        return count;
    };
    ASSERT_TRUE(nxatest::waitUntil([&] { return lostLines() > 0; }, kPatience)) << describe(host);
    // Whatever the host does after the loss comes before this text reaches a new client.
    Background later(ncCommand(20100));
    ASSERT_TRUE(textThroughHost(later, "later\n")) << later.output();
    EXPECT_EQ(lostLines(), 1) << describe(host);
    long const after = residentKiB(host.pid());
    if (!kSanitizedBuild) {
        EXPECT_LT(after - before, 1024)
            << "resident memory went from " << before << " to " << after << " KiB";
    }
    EXPECT_TRUE(host.running());
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST_F(HostBadInput, ClientThatNeverReadsDoesNotHoldUpTheOthers) {
    installPackage(
        {writeModule(sources(), "flood", "noarch", "exec yes 'a line of output that floods the clients'")});
    HostProcess host({"flood"});
    ASSERT_TRUE(waitRunning(host, {{"flood", 20100}})) << describe(host);
    RawClient stuck(20100, 4096);
    // Its buffers fill up and then stay full.
    int last = -1;
    auto stableSince = std::chrono::steady_clock::now();
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            int const now = stuck.unread();
            if (now != last) {
                last = now;
                stableSince = std::chrono::steady_clock::now();
            }
            return now > 0 && std::chrono::steady_clock::now() - stableSince > 500ms;
        },
        kPatience));
    Background reader(ncCommand(20100));
    EXPECT_TRUE(nxatest::waitUntil([&] { return reader.output().size() >= 1000000; }, kPatience))
        << reader.output().size() << " bytes";
    EXPECT_TRUE(host.running());
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST_F(HostBadInput, BrokerLostWhileServingIsReportedAndTheHostsOwnConnectionComesBack) {
    installPackage(
        {writeModule(sources(), "answer", "noarch",
                     "printf 'ready\\n'; while IFS= read -r l; do printf 'got <%s>\\n' \"$l\"; done")});
    HostProcess host({"answer"});
    ASSERT_TRUE(waitRunning(host, {{"answer", 20100}})) << describe(host);
    Background nc(ncCommand(20100), true);
    ASSERT_TRUE(nc.waitFor("ready\n")) << nc.output();

    nxatest::brokerStop();
    ASSERT_TRUE(host.waitForLine("[WARNING] nxahost: the bus broker has gone; reconnecting"))
        << describe(host);
    ASSERT_TRUE(host.waitForLine("[WARNING] NXAModule::handleInput() VLPBus server is gone"))
        << describe(host);
    // TCP clients are served as before.
    nc.send("still there?\n");
    EXPECT_TRUE(nc.waitFor("got <still there?>\n")) << nc.output();

    nxatest::brokerStart();
    ASSERT_TRUE(host.waitForLine("[INFO] nxahost: bus connection established as NXAHost")) << describe(host);
    bool const delivered = nxatest::waitUntil(
        [&] {
            publishSystem("NXAHost", "tester", 34, "back again\n");
            return nc.waitFor("back again\n", 2s);
        },
        kPatience);
    EXPECT_TRUE(delivered) << nc.output() << describe(host);
    EXPECT_EQ(host.countLine("[WARNING] NXAModule::handleInput() VLPBus server is gone"), 1)
        << describe(host);
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitExit(), 0) << describe(host);
}

TEST_F(HostBadInput, NoBrokerEndsTheHostAfterTenRetries) {
    nxatest::brokerStop();
    startWatching();
    auto const start = std::chrono::steady_clock::now();
    HostProcess host({"alpha"}, {leakSuppressionsEnv()});
    ASSERT_EQ(host.waitExit(30s), 1) << describe(host);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 10s);
    std::vector<std::string> expected(
        10, "[WARNING] NXAModule::Module() connection to VLPBus server failed, retrying...");
    expected.push_back("[ERROR] nxahost: [ERROR] Connection to VLPBus server failed");
    EXPECT_EQ(linesAfterTheStart(host), expected) << describe(host);
    EXPECT_EQ(host.err(), "");
    EXPECT_EQ(strayProcesses(), "");
    EXPECT_EQ(writtenOutside(), "");
    EXPECT_EQ(listDir(kModulesDir), std::vector<std::string>{"earlier"});
}

}  // namespace
}  // namespace e2e
