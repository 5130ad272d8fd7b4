// The operator's controls about a module's consumers, with a real module, a
// real TCP client and the sandbox's broker: the clients list with its
// counters, kicking a client, and what cannot be kicked.
#include <gtest/gtest.h>
#include <nxahost/control_protocol.h>
#include <nxahost/control_server.h>
#include <nxahost/module_status.h>

#include <string>
#include <utility>
#include <vector>

#include "capture.h"
#include "loopback_client.h"
#include "registry_fixture.h"

namespace hosttest {
namespace {

using json = nlohmann::json;
constexpr unsigned short kPort = 21300;

class ControlClients : public nxaclienttest::RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        nxaclienttest::installModule("echo", "noarch", "printf 'ready\\n'; exec cat");
        nxatest::Capture quiet;
        client.modules.configure({"echo"});
        client.modules.run();
    }

    json ask(std::string const& text) {
        auto system = std::make_unique<SystemMessage>();
        system->setKind(nxahost::control::kRequestKind);
        system->setText(text);
        sent.clear();
        nxatest::Capture quiet;
        server.handle(RouterMessage("op", std::move(system)));
        EXPECT_EQ(sent.size(), 1u) << text;
        return sent.empty() ? json() : json::parse(sent.back());
    }
    bool attached(std::size_t consumers) {
        return nxaclienttest::pollUntil(
            client.modules, [&] { return client.modules.find("echo")->getConsumers().size() == consumers; });
    }

    NXAClient client{"/var/opt/velmora", "/var/opt/velmora/nxa", "/var/opt/velmora/work", 0, kPort, 4, "", 0};
    std::vector<std::string> sent;
    nxahost::ControlServer server{
        client,
        nxahost::ControlServer::Hooks{
            [] { return json(); },
            [](std::string const&, nxahost::ProgramSupervisor::RestartDone) { return false; }, nullptr,
            nullptr},
        [this](std::string const&, std::string const& text) { sent.push_back(text); }};
};

TEST_F(ControlClients, ClientsListsEveryConsumerWithItsKindAddressAndCounters) {
    nxatest::LoopbackClient tcp(kPort);
    ASSERT_TRUE(attached(2));
    ASSERT_TRUE(nxaclienttest::pollUntil(
        client.modules, [&] { return tcp.received().find("ready\n") != std::string::npos; }));
    json const answer = ask(R"({"command":"clients","module":"echo","id":3})");
    EXPECT_EQ(answer["ok"], true);
    EXPECT_EQ(answer["id"], 3);
    EXPECT_EQ(answer["module"], "echo");
    ASSERT_EQ(answer["clients"].size(), 2u) << answer;
    json const& log = answer["clients"][0];
    json const& peer = answer["clients"][1];
    EXPECT_EQ(log["id"], "client");
    EXPECT_EQ(log["kind"], "log");
    EXPECT_EQ(peer["kind"], "tcp");
    EXPECT_EQ(peer["address"].get<std::string>().rfind("127.0.0.1:", 0), 0u) << peer;
    for (json const& row : answer["clients"]) {
        EXPECT_EQ(row["pushed"].get<unsigned long long>(), row["delivered"].get<unsigned long long>() +
                                                               row["lost_bytes"].get<unsigned long long>() +
                                                               row["queued_bytes"].get<unsigned long long>())
            << row;
        EXPECT_GE(row["attached"].get<double>(), 0.0);
    }
}

TEST_F(ControlClients, KickDetachesATcpClientAndRefusesTheRunLogAndUnknownIds) {
    nxatest::LoopbackClient tcp(kPort);
    ASSERT_TRUE(attached(2));
    std::string const id = client.modules.find("echo")->getConsumers()[1].id;
    EXPECT_EQ(ask(R"({"command":"kick","module":"echo","client":"client"})"),
              (json{{"ok", false}, {"error", "client is the run log of echo, not a client"}}));
    EXPECT_EQ(ask(R"({"command":"kick","module":"echo","client":"telnet:99999"})"),
              (json{{"ok", false}, {"error", "module echo has no client telnet:99999"}}));
    EXPECT_EQ(ask(R"({"command":"kick","module":"echo","client":")" + id + "\"}"), (json{{"ok", true}}));
    EXPECT_EQ(client.modules.find("echo")->getConsumers().size(), 1u);
}

}  // namespace
}  // namespace hosttest
