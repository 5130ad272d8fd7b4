// The operator's controls, the host's side: which messages are requests, the
// answer to each request and to each way it can go wrong, the request's id
// echoed, and a restart answered once the new program runs. The requests are
// handed over as the host hands them; the answers are caught as they would be
// sent. The facade has no module here (see control_clients_test.cc for a
// module with clients).
#include <gtest/gtest.h>
#include <nxahost/control_protocol.h>
#include <nxahost/control_server.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capture.h"

namespace hosttest {
namespace {

using json = nlohmann::json;

std::unique_ptr<RouterMessage> request(std::string const& sender, std::string const& text,
                                       unsigned char kind = nxahost::control::kRequestKind) {
    auto system = std::make_unique<SystemMessage>();
    system->setKind(kind);
    system->setText(text);
    return std::make_unique<RouterMessage>(sender, std::move(system));
}

class ControlServer : public ::testing::Test {
protected:
    ControlServer()
        : client("/var/opt/velmora", "/var/opt/velmora/nxa", "/var/opt/velmora/work", 0, 21000, 4, "", 0),
          server(client,
                 nxahost::ControlServer::Hooks{
                     [] {
                         return json{{"ok", true}, {"modules", json::array({json{{"name", "echo"}}})}};
                     },
                     [this](std::string const& module, nxahost::ProgramSupervisor::RestartDone done) {
                         if (module != "echo") return false;
                         restarts.push_back(std::move(done));
                         return true;
                     },
                     [this](bool allowDowngrade) {
                         reloads.push_back(allowDowngrade);
                         return reloadProblem;
                     },
                     [] {
                         return json{{"installed", json{{"version", "2.0"}}}};
                     }},
                 [this](std::string const& to, std::string const& text) { sent.emplace_back(to, text); }) {}

    // Hands over the request and returns what was sent in answer.
    std::vector<std::pair<std::string, std::string>> ask(std::string const& text,
                                                         std::string const& from = "op") {
        sent.clear();
        EXPECT_TRUE(server.handle(*request(from, text))) << text;
        return sent;
    }
    json askOne(std::string const& text) {
        auto const answers = ask(text);
        EXPECT_EQ(answers.size(), 1u) << text;
        if (answers.size() != 1) return nullptr;
        EXPECT_EQ(answers[0].first, "op");
        return json::parse(answers[0].second);
    }

    nxatest::Capture quiet;
    NXAClient client;
    std::vector<nxahost::ProgramSupervisor::RestartDone> restarts;
    std::vector<bool> reloads;
    std::string reloadProblem;
    std::vector<std::pair<std::string, std::string>> sent;
    nxahost::ControlServer server;
};

TEST_F(ControlServer, StatusIsTheStatusAnswerWithTheRequestsId) {
    json const answer = askOne(R"({"command":"status","id":7})");
    EXPECT_EQ(answer, (json{{"ok", true}, {"id", 7}, {"modules", json::array({json{{"name", "echo"}}})}}));
    EXPECT_EQ(askOne(R"({"command":"status","id":"seven"})")["id"], "seven");
    EXPECT_FALSE(askOne(R"({"command":"status"})").contains("id")) << "no id asked for, none given";
}

TEST_F(ControlServer, EveryRequestAboutAModuleThatIsNotThereIsRefusedByName) {
    for (std::string const command : {"clients", "kick", "restart"}) {
        json const answer =
            askOne(R"({"command":")" + command + R"(","module":"nothing","client":"x","id":1})");
        EXPECT_EQ(answer, (json{{"ok", false}, {"error", "no module named nothing"}, {"id", 1}})) << command;
    }
}

TEST_F(ControlServer, ARequestWithoutItsModuleNamesTheEmptyModule) {
    EXPECT_EQ(askOne(R"({"command":"clients"})")["error"], "no module named ");
    EXPECT_EQ(askOne(R"({"command":"kick","module":5})")["error"], "no module named ");
}

TEST_F(ControlServer, ARestartIsAnsweredOnceTheNewProgramRunsOrWithWhyItCouldNot) {
    EXPECT_TRUE(ask(R"({"command":"restart","module":"echo","id":"r1"})").empty()) << "not before it is done";
    EXPECT_TRUE(ask(R"({"command":"restart","module":"echo","id":"r2"})").empty());
    ASSERT_EQ(restarts.size(), 2u);
    sent.clear();
    restarts[0]("");
    restarts[1]("cannot start module program echo again: cannot fork: Resource temporarily unavailable");
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(json::parse(sent[0].second), (json{{"ok", true}, {"id", "r1"}}));
    EXPECT_EQ(
        json::parse(sent[1].second),
        (json{{"ok", false},
              {"id", "r2"},
              {"error",
               "cannot start module program echo again: cannot fork: Resource temporarily unavailable"}}));
}

TEST_F(ControlServer, AReloadIsAnsweredWithItsOutcomeAndCanAllowADowngradeOnce) {
    EXPECT_EQ(askOne(R"({"command":"reload","id":1})"), (json{{"ok", true}, {"id", 1}}));
    reloadProblem = "module echo would go from version 2.0 back to 1.4";
    EXPECT_EQ(
        askOne(R"({"command":"reload","allow_downgrade":false,"id":2})"),
        (json{{"ok", false}, {"id", 2}, {"error", "module echo would go from version 2.0 back to 1.4"}}));
    askOne(R"({"command":"reload","allow_downgrade":true})");
    askOne(R"({"command":"reload","allow_downgrade":"yes"})");
    EXPECT_EQ(reloads, (std::vector<bool>{false, false, true, false})) << "only true allows it";
}

TEST_F(ControlServer, PackageAnswersWhatTheHostKnowsOfItsPackages) {
    EXPECT_EQ(askOne(R"({"command":"package","id":"p"})"),
              (json{{"ok", true}, {"id", "p"}, {"package", json{{"installed", json{{"version", "2.0"}}}}}}));
}

TEST_F(ControlServer, AnAnswerGoesToWhoeverAsked) {
    auto const answers = ask(R"({"command":"status"})", "nxactl-42");
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].first, "nxactl-42");
}

TEST_F(ControlServer, WhatIsNoRequestIsTakenButGetsNoAnswer) {
    std::vector<std::string> const invalid = {
        "not json",
        "",
        R"({"id":"m1"})",
        R"({"command":5,"id":"m2"})",
        R"(["status"])",
        R"({"command":"status")",
        R"({"command":"frobnicate","id":"m3"})",
        R"({"command":"status","id":{"a":1}})",
        R"({"command":"status","id":[1]})",
        R"({"command":"status","id":null})",
        R"({"command":"status","id":true})",
        R"({"command":"status","x":)" + std::string(33, '[') + std::string(33, ']') + "}",
        R"({"command":"status","x":)" + std::string(30000, '[') + std::string(30000, ']') + "}",
    };
    for (std::string const& text : invalid) EXPECT_TRUE(ask(text).empty()) << text;
    EXPECT_TRUE(restarts.empty());
    // A request without a sender cannot be answered.
    EXPECT_TRUE(ask(R"({"command":"status"})", "").empty());
}

TEST_F(ControlServer, OtherKindsAndMessagesAreNotTheControls) {
    EXPECT_FALSE(server.handle(*request("op", R"({"command":"status"})", 34)));
    EXPECT_FALSE(server.handle(*request("op", R"({"command":"status"})", nxahost::control::kReplyKind)));
    RouterMessage empty("op", nullptr);
    EXPECT_FALSE(server.handle(empty));
    EXPECT_TRUE(sent.empty());
}

TEST_F(ControlServer, RequestsNestedUpToTheLimitAreAnswered) {
    std::string const nested = R"({"command":"status","id":"n","x":)" +
                               std::string(nxahost::control::kMaxRequestNesting - 1, '[') +
                               std::string(nxahost::control::kMaxRequestNesting - 1, ']') + "}";
    EXPECT_EQ(askOne(nested)["id"], "n");
}

TEST(ControlProtocol, NestingIsCountedOutsideStringsOnly) {
    using nxahost::control::nestingWithin;
    EXPECT_TRUE(nestingWithin("[[[]]]", 3));
    EXPECT_FALSE(nestingWithin("[[[[]]]]", 3));
    EXPECT_TRUE(nestingWithin(R"(["[[[[[[", "\"[[[["])", 1));
    EXPECT_TRUE(nestingWithin("]]]]][[[", 3)) << "closing brackets never go below zero";
    EXPECT_FALSE(nestingWithin(std::string(100000, '{'), 32));
}

TEST(ControlProtocol, ARequestIsAnObjectWithATextCommandAndATextOrNumberId) {
    using nxahost::control::parseRequest;
    EXPECT_EQ(parseRequest(R"({"command":"status"})"), (json{{"command", "status"}}));
    EXPECT_EQ(parseRequest(R"({"command":"kick","id":2.5})")["id"], 2.5);
    EXPECT_TRUE(parseRequest(R"({"command":"kick","id":{}})").is_null());
    EXPECT_TRUE(parseRequest(R"({"command":["kick"]})").is_null());
    EXPECT_TRUE(parseRequest("5").is_null());
}

TEST(ControlProtocol, MessageTextReplacesBytesThatAreNotUtf8) {
    EXPECT_EQ(nxahost::control::messageText(json{{"id", std::string("a\xff")}}),
              "{\"id\":\"a\xef\xbf\xbd\"}");
}

}  // namespace
}  // namespace hosttest
