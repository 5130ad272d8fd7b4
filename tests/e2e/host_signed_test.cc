// Signed packages with the real host, real minisign keys and real packages:
// only a package signed by a trusted key is installed, and each forgery is
// refused before anything of it is unpacked; keys rotate; versions only go
// forward unless an operator allows it once; a package whose programs keep
// failing is rolled back to the last good one, at a reload and at start.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "clients.h"
#include "host_process.h"
#include "line_patterns.h"
#include "nxactl_runs.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"
#include "signed_packages.h"
#include "tree_snapshot.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

constexpr char kRefused[] = "[ERROR] nxahost: reload refused, the modules keep running: ";

std::string steady(std::string const& text) {
    return "printf '" + text + "\\n'; exec sleep 100000";
}

class HostSigned : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox";
        ASSERT_EQ(nxatest::shell("mkdir -p " + keys() + " " + scratchDir() + "/src").status, 0);
        makeKeyPair("a", keys());
        makeKeyPair("b");
    }
    void TearDown() override {
        if (host && host->running()) {
            host->signal(SIGTERM);
            EXPECT_EQ(host->waitExit(), 0) << describe(*host);
        }
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    static std::string keys() { return scratchDir() + "/keys"; }
    static nxatest::ShellResult run(std::string const& command) {
        return nxatest::shell("cd " + scratchDir() + " && " + command);
    }
    // The package <scratch>/<name>.zip of module m1 at `version`, its program `body`.
    static std::string pack(std::string const& name, std::string const& version, std::string const& body) {
        return packVersion(name, version, {{"m1", body}});
    }
    static void sign(std::string const& package, std::string const& key = "a") {
        signWithMinisign(package, key);
    }
    void start(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"--trusted-keys", keys(), "--probation", "8"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back("m1");
        host = std::make_unique<HostProcess>(args);
        ASSERT_TRUE(waitRunning(*host, {{"m1", 20100}})) << describe(*host);
    }
    // A new client of m1 sees `text`.
    static bool serves(std::string const& text) {
        return nxatest::waitUntil([&] { return Background(ncCommand(20100)).waitFor(text + "\n", 2s); },
                                  kPatience);
    }
    // The package's probation is over: it is the last good one.
    bool passed(int times = 1) const {
        return host->waitForLine("[INFO] nxahost: package " + version_ +
                                     " passed its probation: it is the last good "
                                     "package now",
                                 times);
    }

    int refusalsSoFar() const {
        std::vector<std::string> const lines = host->outLines();
        return static_cast<int>(std::count_if(lines.begin(), lines.end(), isRefusal));
    }
    std::string lastRefusal() const {
        std::vector<std::string> const lines = host->outLines();
        auto const found = std::find_if(lines.rbegin(), lines.rend(), isRefusal);
        return found == lines.rend() ? "" : *found;
    }
    static bool isRefusal(std::string const& line) { return line.rfind(kRefused, 0) == 0; }

    std::unique_ptr<HostProcess> host;
    std::string version_ = "1.0";
};

TEST_F(HostSigned, AGoodSignedPackageInstallsAndEachForgeryIsRefusedBeforeAnythingIsUnpacked) {
    std::string const good = pack("good", "1.0", steady("good m1"));
    sign(good);
    deliver(good);
    start();
    EXPECT_EQ(host->countLine("[INFO] nxahost: packages are checked: 1 trusted key in " + keys()), 1)
        << describe(*host);
    Background watcher(ncCommand(20100));
    ASSERT_TRUE(watcher.waitFor("good m1\n")) << watcher.output();

    std::string const other = pack("other", "1.1", steady("other m1"));
    struct Forgery {
        std::string what, prepare, reason;
    };
    std::string const bId = printedKeyId("b.pub");
    std::vector<Forgery> const forgeries = {
        {"no signature", "cp other.zip forged.zip",
         "no signature: /var/opt/velmora/.nxahost/incoming.zip.minisig: "},
        {"an untrusted key", "cp other.zip forged.zip && minisign -S -s b.key -m forged.zip",
         "signed by a key that is not trusted (" + bId + ")"},
        {"a flipped byte in the zip",
         "cp other.zip forged.zip && minisign -S -s a.key -m forged.zip && printf '\\377' | dd of=forged.zip "
         "bs=1 "
         "seek=40 conv=notrunc status=none",
         "the signature does not match the package (key "},
        {"a flipped byte in the signature",
         "cp other.zip forged.zip && minisign -S -s a.key -m forged.zip && sed -i "
         "'2s/^\\(.\\{30\\}\\)A/\\1B/; t; "
         "2s/^\\(.\\{30\\}\\)./\\1A/' forged.zip.minisig",
         "the signature does not match the package (key "},
        {"a truncated zip",
         "cp other.zip forged.zip && minisign -S -s a.key -m forged.zip && truncate -s 100 forged.zip",
         "the signature does not match the package (key "},
        {"the signature of another package",
         "cp other.zip forged.zip && minisign -S -s a.key -m good.zip -x "
         "forged.zip.minisig",
         "the signature does not match the package (key "},
    };
    for (Forgery const& forgery : forgeries) {
        ASSERT_EQ(run("rm -f forged.zip forged.zip.minisig && " + forgery.prepare).status, 0) << forgery.what;
        deliver(scratchDir() + "/forged.zip");
        Tree const before = snapshot({kModulesDir, kUnpackDir}, {});
        int const refusals = refusalsSoFar();
        host->signal(SIGHUP);
        ASSERT_TRUE(nxatest::waitUntil([&] { return refusalsSoFar() > refusals; }, kPatience))
            << forgery.what << describe(*host);
        std::string const last = lastRefusal();
        EXPECT_NE(last.find(forgery.reason), std::string::npos) << forgery.what << ": " << last;
        EXPECT_EQ(changesOutside(before, snapshot({kModulesDir, kUnpackDir}, {}), {}), "") << forgery.what;
    }
    EXPECT_EQ(countMatchingLines(watcher.output(), "good m1"), 1) << "the running module was left alone";
    EXPECT_TRUE(host->running());

    // minisign's own signature, and nxapack's, install.
    sign(other);
    deliver(other);
    host->signal(SIGHUP);
    EXPECT_TRUE(serves("other m1")) << describe(*host);
    std::string const third = pack("third", "1.2", steady("third m1"));
    ASSERT_EQ(
        run(quoted(packBinary()) + " --sign a.key third-signed.zip " + scratchDir() + "/src/third/m1").status,
        0);
    deliver(scratchDir() + "/third-signed.zip");
    host->signal(SIGHUP);
    EXPECT_TRUE(serves("third m1")) << describe(*host);
}

TEST_F(HostSigned, KeysRotateByTheFolderWithoutARestart) {
    ASSERT_EQ(run("cp b.pub keys/b.pub").status, 0);
    std::string const byA = pack("by-a", "1.0", steady("by a"));
    sign(byA, "a");
    deliver(byA);
    start();
    std::string const byB = pack("by-b", "1.1", steady("by b"));
    sign(byB, "b");
    deliver(byB);
    host->signal(SIGHUP);
    EXPECT_TRUE(serves("by b")) << describe(*host);
    // The old key is retired: its packages no longer install.
    std::string const aId = printedKeyId("keys/a.pub");
    ASSERT_EQ(run("rm keys/a.pub").status, 0);
    std::string const againByA = pack("again-by-a", "1.2", steady("again by a"));
    sign(againByA, "a");
    deliver(againByA);
    host->signal(SIGHUP);
    EXPECT_TRUE(
        host->waitForLine(std::string(kRefused) + "signed by a key that is not trusted (" + aId + ")"))
        << describe(*host);
    EXPECT_TRUE(serves("by b"));
}

TEST_F(HostSigned, VersionsOnlyGoForwardUnlessAnOperatorAllowsItOnce) {
    std::string const v2 = pack("v2", "2.0", steady("v2 m1"));
    sign(v2);
    deliver(v2);
    start({"--probation", "1"});
    version_ = "2.0";
    ASSERT_TRUE(passed()) << describe(*host);
    std::string const v1 = pack("v1", "1.9", steady("v1 m1"));
    sign(v1);
    deliver(v1);
    host->signal(SIGHUP);
    EXPECT_TRUE(
        host->waitForLine(std::string(kRefused) +
                          "module m1 would go from version 2.0 back to 1.9 (nxactl reload --allow-downgrade "
                          "allows it for one reload)"))
        << describe(*host);
    CtlRun const refused = runCtl({"reload"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err,
              "nxactl: module m1 would go from version 2.0 back to 1.9 (nxactl reload "
              "--allow-downgrade allows it for one reload)\n");
    CtlRun const allowed = runCtl({"reload", "--allow-downgrade"});
    EXPECT_EQ(allowed.status, 0) << allowed.err;
    EXPECT_EQ(allowed.out, "reloaded the package\n");
    EXPECT_TRUE(serves("v1 m1")) << describe(*host);
}

TEST_F(HostSigned, APackageWhoseProgramKeepsFailingIsRolledBackToTheLastGoodOne) {
    std::string const good = pack("good", "1.0", steady("good m1"));
    sign(good);
    deliver(good);
    start();
    ASSERT_TRUE(passed()) << describe(*host);
    BusSubscriber server("VLPBusServer", "%p");
    std::string const failing = pack("failing", "2.0", "printf 'failing m1\\n'; exit 1");
    sign(failing);
    deliver(failing);
    host->signal(SIGHUP);
    ASSERT_TRUE(
        host->waitForLine("[ERROR] nxahost: reload rolled back: module m1 ended 3 times within 8 s (exit "
                          "status 1); package 2.0 replaced by 1.0"))
        << describe(*host);
    EXPECT_TRUE(serves("good m1")) << describe(*host);
    EXPECT_TRUE(server.waitFor(R"("event":"rolled back")")) << server.output();
    json const package = ctlJson({"package"});
    EXPECT_EQ(package["installed"]["version"], "1.0") << package;
    bool sawRollback = false;
    for (json const& event : package["history"]) sawRollback = sawRollback || event["event"] == "rolled back";
    EXPECT_TRUE(sawRollback) << package;
    CtlRun const shown = runCtl({"package"});
    EXPECT_NE(shown.out.find("rolled back"), std::string::npos) << shown.out;
    CtlRun const status = runCtl({"status"});
    EXPECT_NE(status.out.find("\nrolled back "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(": module m1 ended 3 times within 8 s (exit status 1)\n"), std::string::npos)
        << status.out;

    // The same file again: refused until another replaces it.
    host->signal(SIGHUP);
    EXPECT_TRUE(nxatest::waitUntil(
        [&] { return host->out().find("was rolled back; it is taken again only once") != std::string::npos; },
        kPatience))
        << describe(*host);
    std::string const fixed = pack("fixed", "2.1", steady("fixed m1"));
    sign(fixed);
    deliver(fixed);
    host->signal(SIGHUP);
    EXPECT_TRUE(serves("fixed m1")) << describe(*host);
    version_ = "2.1";
    EXPECT_TRUE(passed()) << describe(*host);
    EXPECT_EQ(ctlJson({"package"})["last_good"]["version"], "2.1");
}

TEST_F(HostSigned, AtStartARefusedPackageGivesWayToTheLastGoodOne) {
    std::string const good = pack("good", "1.0", steady("good m1"));
    sign(good);
    deliver(good);
    start({"--probation", "1"});
    ASSERT_TRUE(passed()) << describe(*host);
    host->signal(SIGTERM);
    ASSERT_EQ(host->waitExit(), 0);
    std::string const unsigned_ = pack("unsigned", "1.1", steady("unsigned m1"));
    deliver(unsigned_);
    start();
    EXPECT_TRUE(
        host->waitForLine("[ERROR] nxahost: the package /var/opt/velmora/nxa.zip is refused: no signature: "
                          "/var/opt/velmora/.nxahost/incoming.zip.minisig: No such file or directory; "
                          "starting the last good package "
                          "1.0 instead"))
        << describe(*host);
    EXPECT_TRUE(serves("good m1"));
}

TEST_F(HostSigned, ANamedKeyFolderWithoutAUsableKeyStopsTheHostAndABadKeyFileIsNamed) {
    ASSERT_EQ(run("rm keys/a.pub && mkdir -p empty && printf 'no key\\n' > keys/bad.pub").status, 0);
    deliver(pack("good", "1.0", steady("good m1")));
    HostProcess refused({"--trusted-keys", keys(), "m1"});
    EXPECT_EQ(refused.waitExit(), 2) << describe(refused);
    EXPECT_EQ(refused.err(), "nxahost: --trusted-keys: no usable minisign public key in " + keys() + "\n");
    EXPECT_EQ(refused.countLine("[WARNING] nxahost: not a trusted key: " + keys() +
                                "/bad.pub: not a minisign public key"),
              1)
        << describe(refused);
    // Not named: the default folder, with no key, leaves packages unchecked and says so.
    HostProcess unchecked({"m1"});
    ASSERT_TRUE(waitRunning(unchecked, {{"m1", 20100}})) << describe(unchecked);
    EXPECT_EQ(unchecked.countLine("[WARNING] nxahost: packages are not checked: no trusted key in "
                                  "/etc/nxahost/trusted-keys.d (--trusted-keys)"),
              1);
    unchecked.signal(SIGTERM);
    EXPECT_EQ(unchecked.waitExit(), 0);
}

}  // namespace
}  // namespace e2e
