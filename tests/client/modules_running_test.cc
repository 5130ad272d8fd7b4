// The running registry: starting and stopping all children, the polling fan-out, bus
// messages for the modules and the gathered run logs.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vlplatform/log_util.h>

#include "capture.h"
#include "registry_fixture.h"
#include "shell.h"

namespace {

using nxaclienttest::gone;
using nxaclienttest::installModule;
using nxaclienttest::processAlive;

class ModulesRunning : public nxaclienttest::RegistryTest {
protected:
    // A registry configured (quietly) with `names`, each installed with `body`.
    void configure(std::vector<std::string> const& names, std::string const& body = "exec sleep 1000") {
        for (auto const& name : names) installModule(name, "noarch", body);
        nxatest::Capture quiet;
        modules.configure(names);
    }
    NXAClient::Module& module(std::size_t k) { return *NXATestAccess::list(modules)[k]; }
    pid_t childOf(std::size_t k) { return NXATestAccess::childpid(module(k)); }
    static std::string pid() { return std::to_string(getpid()); }

    static RouterMessage systemMessage(std::string const& sender, unsigned char kind,
                                       std::string const& text) {
        SystemMessage sm;
        sm.setKind(kind);
        sm.setText(text);
        return RouterMessage(sender, sm.clone());
    }

    NXAClient::Modules modules{21000, 8};
};

TEST_F(ModulesRunning, RunStartsOneChildPerModuleInListOrder) {
    configure({"a", "b"});
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.run();
    std::string const text = out.text();
    std::string const head = "[DEBUG] NXAModules::run() pid=" + pid() +
                             "\n"
                             "[DEBUG] NXAModules::run() OK, no childs running\n"
                             "[DEBUG] NXAModule::run() pid=" +
                             pid() + " name=a\n";
    EXPECT_EQ(text.rfind(head, 0), 0u) << text;
    std::size_t const a = text.find("name=a\n"), b = text.find("name=b\n");
    EXPECT_LT(a, b);
    std::string const tail = "[DEBUG] NXAModules::run() pid=" + pid() + " done\n";
    EXPECT_EQ(text.substr(text.size() - tail.size()), tail) << text;
    EXPECT_GT(childOf(0), 0);
    EXPECT_GT(childOf(1), 0);
    EXPECT_EQ(NXATestAccess::proc(modules).children(), (std::set<int>{childOf(0), childOf(1)}));
}

TEST_F(ModulesRunning, RunTwiceWithoutStopIsRefused) {
    configure({"a"});
    nxatest::Capture out;
    modules.run();
    pid_t const first = childOf(0);
    try {
        modules.run();
        ADD_FAILURE() << "no exception";
    } catch (IOException const& e) {
        EXPECT_EQ(e.code().value(), 16);
        EXPECT_STREQ(e.what(), "NXA process(es) still running: Device or resource busy");
    }
    EXPECT_EQ(childOf(0), first);
    EXPECT_EQ(NXATestAccess::proc(modules).children(), std::set<int>{first});
    EXPECT_EQ(out.text(), "");
}

TEST_F(ModulesRunning, ChildrenEndedOnTheirOwnAreCollectedBeforeTheCheck) {
    configure({"a"}, "exit 0");
    nxatest::Capture out;
    modules.run();
    pid_t const first = childOf(0);
    ASSERT_TRUE(nxatest::waitUntil([&] { return !processAlive(first); }));
    modules.run();  // the ended child is reaped, so nothing is still running
    EXPECT_NE(childOf(0), first);
    EXPECT_EQ(NXATestAccess::proc(modules).children(), std::set<int>{childOf(0)});
    EXPECT_EQ(waitpid(first, nullptr, WNOHANG), -1);  // already reaped
}

TEST_F(ModulesRunning, RunOnAnEmptyRegistryOnlyChecks) {
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.run();
    EXPECT_EQ(out.text(), "[DEBUG] NXAModules::run() pid=" + pid() +
                              "\n"
                              "[DEBUG] NXAModules::run() OK, no childs running\n"
                              "[DEBUG] NXAModules::run() pid=" +
                              pid() + " done\n");
}

TEST_F(ModulesRunning, StopEndsEveryChildAndEmptiesTheList) {
    configure({"a", "b"});
    nxatest::Capture out;
    modules.run();
    pid_t const a = childOf(0), b = childOf(1);
    modules.stop();
    EXPECT_TRUE(modules.getModuleNames().empty());
    EXPECT_FALSE(processAlive(a));
    EXPECT_FALSE(processAlive(b));
    EXPECT_TRUE(NXATestAccess::proc(modules).children().empty());
    modules.run();  // nothing left: no exception
}

TEST_F(ModulesRunning, ConfiguringAnEmptyListEndsEveryChildAndLeavesNoModule) {
    configure({"a"});
    {
        nxatest::Capture quiet;
        modules.run();
    }
    pid_t const a = childOf(0);
    ASSERT_GT(a, 0);
    NXAClient::debug = 1;
    nxatest::Capture out;
    modules.configure({});
    EXPECT_TRUE(modules.getModuleNames().empty());
    EXPECT_TRUE(gone(a));
    EXPECT_TRUE(NXATestAccess::proc(modules).children().empty());
    std::string const self = pid(), child = std::to_string(a);
    EXPECT_EQ(out.text(),
              "[DEBUG] NXAModules::configure() #modulenames=0\n"
              "[DEBUG] NXAModules::stop() pid=" +
                  self +
                  "\n"
                  "[DEBUG] NXAModule::~Module() pid=" +
                  child + " getpid=" + self +
                  "\n"
                  "[DEBUG] NXAModule::stop() pid=" +
                  self +
                  "\n"
                  "[DEBUG] NXAModule::stop() pid=-1 done\n"
                  "[DEBUG] NXAModule::~Module() pid=-1 getpid=" +
                  self +
                  " done\n"
                  "[DEBUG] NXAModules::stop() pid=" +
                  self +
                  " done\n"
                  "[DEBUG] NXAModules::configure() #modules=0 done\n");
}

TEST_F(ModulesRunning, ConfiguringAgainEndsTheRunningChildrenAndMakesTheNewModules) {
    configure({"a", "b"});
    installModule("c", "noarch");
    installModule("d", "noarch");
    nxatest::Capture out;
    modules.run();
    pid_t const a = childOf(0), b = childOf(1);
    ASSERT_GT(a, 0);
    ASSERT_GT(b, 0);

    modules.configure({"c", "d"});
    EXPECT_TRUE(gone(a));
    EXPECT_TRUE(gone(b));
    EXPECT_EQ(modules.getModuleNames(), (std::vector<std::string>{"c", "d"}));
    EXPECT_EQ(nxaclienttest::boundPort(module(0)), 21000);
    EXPECT_EQ(nxaclienttest::boundPort(module(1)), 21001);
    EXPECT_EQ(childOf(0), -1);
    EXPECT_EQ(childOf(1), -1);
    EXPECT_TRUE(NXATestAccess::proc(modules).children().empty());
    EXPECT_EQ(out.text(), std::string(nxaclienttest::kConnected) + nxaclienttest::kConnected);

    modules.run();  // nothing of the first configuration is left running
    EXPECT_TRUE(processAlive(childOf(0)));
    EXPECT_TRUE(processAlive(childOf(1)));
    EXPECT_EQ(NXATestAccess::proc(modules).children(), (std::set<int>{childOf(0), childOf(1)}));
}

TEST_F(ModulesRunning, DestroyingTheRegistryStopsTheChildren) {
    pid_t a = -1;
    NXAClient::debug = 1;
    nxatest::Capture out;
    {
        NXAClient::Modules local(21100, 4);
        installModule("a", "noarch");
        local.configure({"a"});
        local.run();
        a = NXATestAccess::childpid(*NXATestAccess::list(local)[0]);
    }
    EXPECT_FALSE(processAlive(a));
    std::string const text = out.text();
    std::string const begin = "[DEBUG] NXAModules::~Modules() pid=" + pid() +
                              "\n"
                              "[DEBUG] NXAModules::stop() pid=" +
                              pid() + "\n";
    std::string const end = "[DEBUG] NXAModules::stop() pid=" + pid() +
                            " done\n"
                            "[DEBUG] NXAModules::~Modules() pid=" +
                            pid() + " done\n";
    std::size_t const at = text.find(begin);
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - end.size()), end) << text;
}

TEST_F(ModulesRunning, AMessageWithoutPayloadIsNotForTheModules) {
    configure({"a"});
    NXAClient::debug = 1;
    nxatest::Capture out;
    EXPECT_FALSE(modules.handle(RouterMessage("viewer", nullptr)));
    EXPECT_FALSE(
        modules.handle(RouterMessage("viewer", SystemSetStateVlpBusMessage("running", "", 0).clone())));
    EXPECT_EQ(out.text(), "");
}

TEST_F(ModulesRunning, StartAndStopRequestsAreOnlyRecorded) {
    configure({"a"});
    NXAClient::debug = 1;
    RouterMessage start = systemMessage("viewer", 4, "71-NXAStartOutput");
    RouterMessage stop = systemMessage("viewer", 4, "72-NXAStopOutput");
    nxatest::Capture out;
    EXPECT_TRUE(modules.handle(start));
    EXPECT_TRUE(modules.handle(stop));
    EXPECT_EQ(out.text(), "[DEBUG] NXAModules::handle() received " + makeString(*start.message()) +
                              " from viewer\n"
                              "[DEBUG] NXAModules::addPeer() viewer\n"
                              "[DEBUG] NXAModules::handle() received " +
                              makeString(*stop.message()) +
                              " from viewer\n"
                              "[DEBUG] NXAModules::removePeer() viewer\n");
    EXPECT_EQ(NXATestAccess::peers(module(0)).size(), 1u);
}

TEST_F(ModulesRunning, OtherCommandsAreTracedAndRefused) {
    configure({"a"});
    NXAClient::debug = 1;
    RouterMessage other = systemMessage("viewer", 4, "71-NXAStartOutpu");
    RouterMessage kind = systemMessage("viewer", 5, "71-NXAStartOutput");
    nxatest::Capture out;
    EXPECT_FALSE(modules.handle(other));
    EXPECT_FALSE(modules.handle(kind));
    EXPECT_EQ(out.text(), "[DEBUG] NXAModules::handle() received " + makeString(*other.message()) +
                              " from viewer\n"
                              "[DEBUG] NXAModules::handle() received " +
                              makeString(*kind.message()) + " from viewer\n");
}

TEST_F(ModulesRunning, TextMessagesGoToEveryModulesPeers) {
    configure({"a", "b"});
    nxatest::Capture out;
    EXPECT_TRUE(modules.handle(systemMessage("viewer", 34, "hello")));
    std::string a, b;
    module(0).getRunLog(a);
    module(1).getRunLog(b);
    EXPECT_EQ(a, "hello");
    EXPECT_EQ(b, "hello");
}

TEST_F(ModulesRunning, RunLogsAreGatheredInListOrder) {
    // a and c print once /tmp/go exists; b never prints anything of its own.
    std::string const waitForGo = "while [ ! -e /tmp/go ]; do sleep 0.02; done; ";
    installModule("a", "noarch", waitForGo + "printf first; exec sleep 1000");
    installModule("b", "noarch", "exec sleep 1000");
    installModule("c", "noarch", waitForGo + "printf third; exec sleep 1000");
    {
        nxatest::Capture quiet;
        modules.configure({"a", "b", "c"});
    }
    nxatest::Capture out;
    modules.run();
    std::string seen[3];
    auto logged = [&](std::size_t k, std::string const& text) {
        module(k).getRunLog(seen[k]);
        return seen[k].find(text) != std::string::npos;
    };
    // First the children's own "starting module" lines, drained module by module.
    ASSERT_TRUE(nxaclienttest::pollUntil(modules, [&] {
        return logged(0, "starting module") && logged(1, "starting module") && logged(2, "starting module");
    }));
    nxatest::writeFile("/tmp/go", "");
    auto queued = [&](std::size_t k) { return !module(k).getRunLogPeer()->getQueue().empty(); };
    ASSERT_TRUE(nxaclienttest::pollUntil(modules, [&] {
        std::size_t bytes = 0;
        for (std::size_t k : {0u, 2u}) {
            for (auto const& block : module(k).getRunLogPeer()->getQueue()) bytes += block.data->bytes.size();
        }
        return queued(0) && queued(2) && bytes == 10;
    }));
    std::string log = "x";
    modules.getRunLog(log);
    EXPECT_EQ(log, "xfirstthird");
    std::string again;
    modules.getRunLog(again);
    EXPECT_EQ(again, "");
}

}  // namespace
