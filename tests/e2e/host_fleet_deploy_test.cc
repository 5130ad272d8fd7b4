// The real host with --fleet, in a sandbox with its broker, and a real nginx
// serving signed packages: the desired package published on the device's
// broker as the fleet bridge would bring it (retained), each step read back
// from the state topic, the modules' output read by a TCP client.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "clients.h"
#include "host_process.h"
#include "package_server.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"
#include "signed_packages.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

constexpr char kDesired[] = "nxa/fleet/desired";
constexpr char kState[] = "nxa/fleet/state";
constexpr char kPresence[] = "nxa/fleet/presence";

std::string steady(std::string const& text) {
    return "printf '" + text + "\\n'; exec sleep 100000";
}

// The retained message on `topic`, parsed; null when there is none.
json retained(std::string const& topic) {
    std::string const text =
        nxatest::shell("mosquitto_sub -p 20010 -t " + topic + " --retained-only -C 1 -W 1 2>/dev/null")
            .output;
    return json::parse(text, nullptr, false);
}

class HostFleetDeploy : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox --broker";
        ASSERT_EQ(nxatest::shell("mkdir -p " + keys() + " " + scratchDir() + "/src").status, 0);
        makeKeyPair("a", keys());
        makeKeyPair("b");
        std::string const first = packVersion("first", "1.0", {{"m1", steady("version one")}});
        signWithMinisign(first, "a");
        deliver(first);
        server_.start();
        states_ = std::make_unique<Background>("exec mosquitto_sub -p 20010 -t " + std::string(kState));
    }
    void TearDown() override {
        if (host_ && host_->running()) {
            host_->signal(SIGTERM);
            EXPECT_EQ(host_->waitExit(), 0) << describe(*host_);
        }
        nxatest::shell("mosquitto_pub -p 20010 -r -n -t " + std::string(kDesired));
        server_.stop();
        states_.reset();
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    static std::string keys() { return scratchDir() + "/keys"; }

    void startHost(std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"--fleet", "--trusted-keys", keys(), "--probation", "2"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back("m1");
        host_ = std::make_unique<HostProcess>(args);
        ASSERT_TRUE(waitRunning(*host_, {{"m1", 20100}})) << describe(*host_);
    }
    // Puts <scratch>/<name>.zip (and its signature) on the server; returns
    // the desired-package message for it.
    json offer(std::string const& name, std::string const& version) {
        std::string const package = scratchDir() + "/" + name + ".zip";
        EXPECT_EQ(nxatest::shell("cp " + package + " " + package + ".minisig " + server_.files()).status, 0);
        std::string const sha256 = nxatest::shell("sha256sum " + package).output.substr(0, 64);
        std::size_t const size = nxatest::readFile(package).size();
        return json{{"deployment", "d-" + name},
                    {"version", version},
                    {"package_url", server_.url(name + ".zip")},
                    {"signature_url", server_.url(name + ".zip.minisig")},
                    {"sha256", sha256},
                    {"size", size}};
    }
    static void desire(json const& message) {
        nxatest::ShellResult const r = nxatest::shell(
            "mosquitto_pub -p 20010 -q 1 -r -t " + std::string(kDesired) + " -m " + quoted(message.dump()));
        ASSERT_EQ(r.status, 0) << r.output;
    }
    // The steps reported so far, "step" or "step: reason".
    std::vector<std::string> steps() const {
        std::vector<std::string> found;
        std::string const out = states_->output();
        for (std::size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
            json const state = json::parse(out.substr(at, end - at), nullptr, false);
            if (!state.is_object()) continue;
            found.push_back(state.value("step", "") +
                            (state.contains("reason") ? ": " + state["reason"].get<std::string>() : ""));
        }
        return found;
    }
    // Whether the last step reported begins with `step`.
    bool reachedNow(std::string const& step) const {
        std::vector<std::string> const seen = steps();
        return !seen.empty() && seen.back().rfind(step, 0) == 0;
    }
    bool reached(std::string const& step) const {
        return nxatest::waitUntil([&] { return reachedNow(step); }, kPatience);
    }
    static bool serves(std::string const& text) {
        return nxatest::waitUntil([&] { return Background(ncCommand(20100)).waitFor(text + "\n", 2s); },
                                  kPatience);
    }
    std::string describeAll() const {
        return describe(*host_) + "--- states:\n" + states_->output() + "--- nginx:\n" + server_.accessLog();
    }

    nxatest::PackageServer server_;
    std::unique_ptr<HostProcess> host_;
    std::unique_ptr<Background> states_;
};

TEST_F(HostFleetDeploy, TheDesiredPackageIsDownloadedCheckedInstalledAndReportedStepByStep) {
    startHost();
    EXPECT_EQ(retained(kPresence).value("package", ""), "1.0");
    std::string const second = packVersion("second", "2.0", {{"m1", steady("version two")}});
    signWithMinisign(second, "a");
    desire(offer("second", "2.0"));
    ASSERT_TRUE(reached("running")) << describeAll();
    EXPECT_TRUE(serves("version two")) << describeAll();
    std::vector<std::string> const seen = steps();
    ASSERT_GE(seen.size(), 5u) << describeAll();
    EXPECT_EQ(seen[0], "queued");
    EXPECT_EQ(seen[1], "downloading");
    EXPECT_EQ(std::vector<std::string>(seen.end() - 3, seen.end()),
              (std::vector<std::string>{"installing", "probation", "running"}));
    json const state = retained(kState);
    EXPECT_EQ(state.value("deployment", ""), "d-second");
    EXPECT_EQ(state.value("version", ""), "2.0");
    json const presence = retained(kPresence);
    EXPECT_EQ(presence.value("state", ""), "online") << presence;
    EXPECT_EQ(presence.value("package", ""), "2.0") << presence;
    EXPECT_EQ(presence["modules"], (json{{"running", 1}, {"restarting", 0}, {"ended", 0}})) << presence;
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /second.zip\n200 \"-\" /second.zip.minisig\n");
    // Stopped, the host says so.
    host_->signal(SIGTERM);
    EXPECT_EQ(host_->waitExit(), 0);
    EXPECT_EQ(retained(kPresence).value("state", ""), "stopped");
}

TEST_F(HostFleetDeploy, AForgedOrAlteredPackageIsRefusedWithItsReasonAndTheModulesKeepRunning) {
    startHost();
    std::string const forged = packVersion("forged", "2.0", {{"m1", steady("forged")}});
    signWithMinisign(forged, "b");
    desire(offer("forged", "2.0"));
    ASSERT_TRUE(reached("failed")) << describeAll();
    EXPECT_EQ(steps().back(), "failed: signed by a key that is not trusted (" + printedKeyId("b.pub") + ")");
    // The same package's bytes changed on the server after it was offered.
    std::string const altered = packVersion("altered", "2.1", {{"m1", steady("altered")}});
    signWithMinisign(altered, "a");
    json const message = offer("altered", "2.1");
    nxatest::writeFile(server_.files() + "/altered.zip",
                       std::string(message["size"].get<std::size_t>(), 'x'));
    desire(message);
    ASSERT_TRUE(
        nxatest::waitUntil([&] { return reachedNow("failed: the package: its SHA-256 is "); }, kPatience))
        << describeAll();
    EXPECT_TRUE(serves("version one"));
    EXPECT_EQ(retained(kPresence).value("package", ""), "1.0");
}

TEST_F(HostFleetDeploy, ADesiredPackageThatIsNotValidIsRefusedAndNothingIsDownloaded) {
    startHost();
    signWithMinisign(packVersion("second", "2.0", {{"m1", steady("version two")}}), "a");
    json message = offer("second", "2.0");
    message["package_url"] = "file:///etc/shadow";
    desire(message);
    ASSERT_TRUE(reached("failed")) << describeAll();
    EXPECT_EQ(steps().back(), "failed: refused: \"package_url\" is not an http:// or https:// URL");
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(HostFleetDeploy, ThePackageAlreadyRunningIsNotDownloaded) {
    startHost();
    desire(offer("first", "1.0"));
    ASSERT_TRUE(reached("running")) << describeAll();
    EXPECT_EQ(steps(), std::vector<std::string>{"running"});
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(HostFleetDeploy, ANewVersionWhoseProgramKeepsFailingIsRolledBackAndSaidSo) {
    // The first package passes its probation; the next one's program fails
    // twice within its own.
    startHost({"--probation", "4", "--probation-failures", "2"});
    ASSERT_TRUE(host_->waitForLine(
        "[INFO] nxahost: package 1.0 passed its probation: it is the last good package now"))
        << describeAll();
    std::string const crashing = packVersion("crashing", "2.0", {{"m1", "printf 'crashing\\n'; exit 3"}});
    signWithMinisign(crashing, "a");
    desire(offer("crashing", "2.0"));
    ASSERT_TRUE(reached("rolled back")) << describeAll();
    EXPECT_NE(steps().back().find("m1"), std::string::npos) << steps().back();
    EXPECT_TRUE(serves("version one"));
    EXPECT_EQ(retained(kPresence).value("package", ""), "1.0");
}

TEST_F(HostFleetDeploy, AHostThatIsKilledLeavesOfflineAsItsPresence) {
    startHost();
    ASSERT_TRUE(
        nxatest::waitUntil([] { return retained(kPresence).value("state", "") == "online"; }, kPatience));
    host_->signal(SIGKILL);
    host_->waitExit();
    killStrayProcesses();
    EXPECT_TRUE(
        nxatest::waitUntil([] { return retained(kPresence).value("state", "") == "offline"; }, kPatience));
}

}  // namespace
}  // namespace e2e
