// The fleet link against the sandbox's real broker, watched with
// mosquitto_sub and fed with mosquitto_pub: retained presence and will,
// subscriptions, and a broker that goes away and comes back.
#include <gtest/gtest.h>
#include <nxahost/fleet_link.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "background.h"
#include "drive_loop.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using namespace std::chrono_literals;
using nxahost::FleetLink;

constexpr char kPresence[] = "nxa/fleet/presence";
constexpr char kDesired[] = "nxa/fleet/desired";

FleetLink::Setup setup() {
    FleetLink::Setup wanted;
    wanted.port = nxatest::kBusPort;
    wanted.subscriptions = {kDesired};
    wanted.presenceTopic = kPresence;
    wanted.presence = "{\"state\":\"online\"}";
    wanted.will = "{\"state\":\"offline\"}";
    return wanted;
}

// The retained message on `topic` now, as a fresh subscriber gets it; empty
// when there is none.
std::string retainedOn(std::string const& topic) {
    return nxatest::shell("mosquitto_sub -p 20010 -t " + topic + " --retained-only -C 1 -W 1 2>/dev/null")
        .output;
}

void publish(std::string const& topic, std::string const& payload, bool retained = false) {
    nxatest::ShellResult const r =
        nxatest::shell("mosquitto_pub -p 20010 -q 1 " + std::string(retained ? "-r " : "") + "-t " + topic +
                       " -m '" + payload + "'");
    ASSERT_EQ(r.status, 0) << r.output;
}

class FleetLinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(nxatest::inSandbox()) << "this test must run inside tests/sandbox/nxa-sandbox --broker";
        nxatest::shell("mosquitto_pub -p 20010 -r -n -t " + std::string(kPresence));
        nxatest::shell("mosquitto_pub -p 20010 -r -n -t " + std::string(kDesired));
    }
    FleetLink::Receiver keep() {
        return [this](std::string const& topic, std::string const& payload) {
            received_.push_back(topic + " " + payload);
        };
    }
    std::vector<std::string> received_;
};

TEST_F(FleetLinkTest, ItSaysItIsOnlineRetainedAndGetsWhatWasRetainedForIt) {
    publish(kDesired, "wanted before", true);
    FleetLink link(setup(), keep());
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return !received_.empty(); }));
    EXPECT_EQ(received_, std::vector<std::string>{"nxa/fleet/desired wanted before"});
    EXPECT_TRUE(link.connected());
    EXPECT_EQ(retainedOn(kPresence), "{\"state\":\"online\"}\n");
    publish(kDesired, "wanted now");
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return received_.size() == 2; }));
    EXPECT_EQ(received_[1], "nxa/fleet/desired wanted now");
}

TEST_F(FleetLinkTest, WhatItPublishesIsRetainedAndAGoodbyeLeavesTheLastPresence) {
    FleetLink link(setup(), keep());
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return link.connected(); }));
    link.publishRetained("nxa/fleet/state", "{\"step\":\"downloading\"}");
    link.publishRetained(kPresence, "{\"state\":\"stopping\"}");
    nxatest::Background watch("exec mosquitto_sub -p 20010 -t nxa/fleet/state -C 1");
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return watch.output() != ""; })) << watch.output();
    EXPECT_EQ(watch.output(), "{\"step\":\"downloading\"}\n");
    link.close();
    EXPECT_FALSE(link.connected());
    EXPECT_EQ(retainedOn(kPresence), "{\"state\":\"stopping\"}\n");
}

TEST_F(FleetLinkTest, AHostThatDiesLeavesItsWill) {
    pid_t const child = fork();
    if (child == 0) {
        FleetLink link(setup(), [](std::string const&, std::string const&) {});
        bool const up = hosttest::driveUntil(link, [&] { return link.connected(); });
        // Until the broker has the presence, it is not known online.
        while (up && retainedOn(kPresence) != "{\"state\":\"online\"}\n")
            hosttest::driveUntil(link, [] { return true; });
        _exit(up ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    EXPECT_TRUE(nxatest::waitUntil([] { return retainedOn(kPresence) == "{\"state\":\"offline\"}\n"; }));
}

TEST_F(FleetLinkTest, ABrokerThatComesBackGetsTheLatestStateAndTheSubscription) {
    FleetLink link(setup(), keep());
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return link.connected(); }));
    nxatest::brokerStop();
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return !link.connected(); }));
    link.publishRetained("nxa/fleet/state", "{\"step\":\"verifying\"}");
    // The broker keeps no retained message over a restart here: what the
    // broker then has came from the link.
    nxatest::brokerStart();
    ASSERT_TRUE(hosttest::driveUntil(
        link, [&] { return link.connected(); }, 10s));
    ASSERT_TRUE(hosttest::driveUntil(
        link, [&] { return retainedOn("nxa/fleet/state") != ""; }, 10s));
    EXPECT_EQ(retainedOn("nxa/fleet/state"), "{\"step\":\"verifying\"}\n");
    EXPECT_EQ(retainedOn(kPresence), "{\"state\":\"online\"}\n");
    publish(kDesired, "after the return");
    ASSERT_TRUE(hosttest::driveUntil(link, [&] { return !received_.empty(); }));
    EXPECT_EQ(received_.back(), "nxa/fleet/desired after the return");
}

}  // namespace
