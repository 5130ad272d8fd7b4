// The device's side of deployment against the sandbox's broker and a real
// nginx: the desired package published as the centre does (retained), each
// step read back from the state topic, the host's install a stand-in.
#include <gtest/gtest.h>
#include <nxahost/fleet_agent.h>

#include <nlohmann/json.hpp>
#include <random>

#include "background.h"
#include "drive_loop.h"
#include "fakes.h"
#include "package_server.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using namespace std::chrono_literals;
using nxahost::DesiredPackage;
using nxahost::FleetAgent;
namespace fleet = nxahost::fleet;

std::string randomBytes(std::size_t count) {
    std::mt19937 random(5);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

void publishDesired(std::string const& payload) {
    nxatest::ShellResult const r = nxatest::shell(
        "mosquitto_pub -p 20010 -q 1 -r -t " + std::string(fleet::kDesiredTopic) + " -m '" + payload + "'");
    ASSERT_EQ(r.status, 0) << r.output;
}

class FleetAgentTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox --broker";
        nxatest::shell("mosquitto_pub -p 20010 -r -n -t " + std::string(fleet::kDesiredTopic));
        nxatest::shell("mosquitto_pub -p 20010 -r -n -t " + std::string(fleet::kStateTopic));
        content_ = randomBytes(1 << 20);
        nxatest::writeFile(server_.files() + "/nxa-2.0.zip", content_);
        nxatest::writeFile(server_.files() + "/nxa-2.0.zip.minisig", "its signature\n");
        server_.start();
        char pattern[] = "/tmp/nxa-agent-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        top_ = pattern;
        wanted_.deployment = "d-7";
        wanted_.version = "2.0";
        wanted_.packageUrl = server_.url("nxa-2.0.zip");
        wanted_.signatureUrl = server_.url("nxa-2.0.zip.minisig");
        wanted_.sha256 = nxatest::shell("sha256sum " + server_.files() + "/nxa-2.0.zip").output.substr(0, 64);
        wanted_.size = content_.size();
        states_ = std::make_unique<nxatest::Background>("exec mosquitto_sub -p 20010 -t " +
                                                        std::string(fleet::kStateTopic));
    }
    void TearDown() override { nxatest::shell("rm -rf " + top_); }

    std::unique_ptr<FleetAgent> makeAgent() {
        FleetAgent::Setup setup;
        setup.link.port = nxatest::kBusPort;
        setup.link.presenceTopic = fleet::kPresenceTopic;
        setup.link.presence = "{\"state\":\"online\"}";
        setup.link.will = "{\"state\":\"offline\"}";
        setup.folder = top_ + "/downloads";
        setup.delivered = top_ + "/nxa.zip";
        setup.mostBytes = 64 << 20;
        FleetAgent::Hooks hooks;
        hooks.runningSha256 = [this] { return running_; };
        hooks.install = [this] {
            ++installs_;
            return refusal_;
        };
        return std::make_unique<FleetAgent>(setup, hooks, clock_, jitter_);
    }
    // The steps reported so far, each "step" or "step percent" or "step: reason".
    std::vector<std::string> steps() const {
        std::vector<std::string> found;
        std::string const out = states_->output();
        for (std::size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1) {
            nlohmann::json const state = nlohmann::json::parse(out.substr(at, end - at), nullptr, false);
            if (!state.is_object()) continue;
            std::string step = state.value("step", "");
            if (state.contains("percent")) step += " " + std::to_string(state["percent"].get<int>());
            if (state.contains("reason")) step += ": " + state["reason"].get<std::string>();
            found.push_back(step);
        }
        return found;
    }
    bool driveUntilStep(FleetAgent& agent, std::string const& last) {
        return hosttest::driveUntil(agent, [&] { return !steps().empty() && steps().back() == last; });
    }

    nxatest::PackageServer server_;
    hosttest::FakeClock clock_;
    hosttest::FakeJitter jitter_;
    std::string content_;
    std::string top_;
    DesiredPackage wanted_;
    std::unique_ptr<nxatest::Background> states_;
    std::string running_;
    std::string refusal_;
    int installs_ = 0;
};

TEST_F(FleetAgentTest, TheDesiredPackageIsFetchedDeliveredAndInstalledWithEachStepReported) {
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "probation")) << states_->output();
    EXPECT_EQ(installs_, 1);
    EXPECT_TRUE(nxatest::readFile(top_ + "/nxa.zip") == content_);
    EXPECT_EQ(nxatest::readFile(top_ + "/nxa.zip.minisig"), "its signature\n");
    std::vector<std::string> const seen = steps();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(seen.front(), "queued");
    EXPECT_EQ(seen[1], "downloading 0");
    EXPECT_EQ(seen[seen.size() - 2], "installing");
    agent->report("running");
    ASSERT_TRUE(driveUntilStep(*agent, "running")) << states_->output();
    nlohmann::json const last = nlohmann::json::parse(
        nxatest::shell("mosquitto_sub -p 20010 -t nxa/fleet/state --retained-only -C 1 -W 2").output);
    EXPECT_EQ(
        last,
        (nlohmann::json{
            {"deployment", "d-7"}, {"version", "2.0"}, {"sha256", wanted_.sha256}, {"step", "running"}}));
}

TEST_F(FleetAgentTest, ThePackageAlreadyRunningIsNotDownloaded) {
    running_ = wanted_.sha256;
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "running")) << states_->output();
    EXPECT_EQ(steps(), std::vector<std::string>{"running"});
    EXPECT_EQ(installs_, 0);
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(FleetAgentTest, AnInvalidDesiredPackageIsRefusedWithTheReasonAndNothingIsDownloaded) {
    wanted_.size = 0;
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "failed: refused: \"size\" is 0")) << states_->output();
    EXPECT_EQ(installs_, 0);
    EXPECT_EQ(server_.accessLog(), "");
}

TEST_F(FleetAgentTest, AnInstallTheHostRefusesIsReportedWithItsReason) {
    refusal_ = "signed by a key that is not trusted (66BC72623273955)";
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "failed: " + refusal_)) << states_->output();
    EXPECT_EQ(installs_, 1);
}

TEST_F(FleetAgentTest, AReasonThatIsNotUtf8IsReportedWithItsBadBytesReplaced) {
    refusal_ = "cannot read /var/opt/velmora/caf\xe9";
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "failed: cannot read /var/opt/velmora/caf\xef\xbf\xbd"))
        << states_->output();
}

TEST_F(FleetAgentTest, ADesiredPackageComingBackIsNotTakenAgain) {
    publishDesired(wanted_.toJson());
    std::unique_ptr<FleetAgent> agent = makeAgent();
    ASSERT_TRUE(driveUntilStep(*agent, "probation")) << states_->output();
    // The same again (as after a reconnection), then one refused: once the
    // refusal is reported, the repeat was seen before it.
    publishDesired(wanted_.toJson());
    DesiredPackage broken = wanted_;
    broken.packageUrl = "file:///etc/shadow";
    publishDesired(broken.toJson());
    ASSERT_TRUE(driveUntilStep(*agent, "failed: refused: \"package_url\" is not an http:// or https:// URL"))
        << states_->output();
    EXPECT_EQ(installs_, 1);
    EXPECT_EQ(server_.accessLog(), "200 \"-\" /nxa-2.0.zip\n200 \"-\" /nxa-2.0.zip.minisig\n");
}

}  // namespace
