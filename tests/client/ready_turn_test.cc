// The registry's turn at the cost of what is ready: addFdsCached() gives what
// addFds() gives through a module's whole life, and handleReady() serves the
// modules with something ready, and only them, as the full turn would.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture.h"
#include "loopback_client.h"
#include "registry_fixture.h"

namespace {

using nxaclienttest::installModule;
using nxatest::LoopbackClient;

constexpr unsigned short kPort = 21100;
constexpr char kEcho[] = "while read line; do echo \"you typed $line\"; done";

// The descriptors of a set, ascending.
std::vector<int> members(FdSet const& set) {
    std::vector<int> fds;
    for (int fd = set.next(0); fd != -1; fd = set.next(fd + 1)) fds.push_back(fd);
    return fds;
}

class ReadyTurn : public nxaclienttest::RegistryTest {
protected:
    void configure(std::vector<std::string> const& names, std::string const& body) {
        for (auto const& name : names) installModule(name, "noarch", body);
        nxatest::Capture quiet;
        modules.configure(names);
        modules.run();
    }
    NXAClient::Module& module(std::size_t k) { return *NXATestAccess::list(modules)[k]; }

    // What the kept descriptors hold must be what every module registers now.
    void expectCachedEqualsFull(char const* when) {
        FdSet fullRd, fullWr, keptRd, keptWr;
        modules.addFds(fullRd, fullWr);
        modules.addFdsCached(keptRd, keptWr);
        EXPECT_EQ(members(keptRd), members(fullRd)) << when;
        EXPECT_EQ(members(keptWr), members(fullWr)) << when;
    }

    // One turn with the kept descriptors and the visits of the ready modules.
    void turn(int timeoutMs = 20) {
        FdSet rd, wr;
        modules.addFdsCached(rd, wr);
        if (waitFds(rd, wr, timeoutMs) < 0) return;
        modules.handleReady(rd, wr);
    }
    bool turnUntil(std::function<bool()> const& condition) {
        auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            turn();
        }
        return true;
    }
    // Every program's start line has been read: the terminals are quiet.
    bool allStarted() {
        for (NXAClient::Module* m : modules.getModules()) {
            if (m->getConsumers()[0].counters.pushed == 0) return false;
        }
        return true;
    }
    static bool holds(LoopbackClient& client, std::string const& text) {
        return client.received().find(text) != std::string::npos;
    }

    NXAClient::Modules modules{kPort, 8};
};

TEST_F(ReadyTurn, KeptDescriptorsAreWhatAddFdsGivesThroughTheModulesLife) {
    configure({"a", "b", "c"}, kEcho);
    expectCachedEqualsFull("after run");

    auto first = std::make_unique<LoopbackClient>(kPort);
    ASSERT_TRUE(turnUntil([&] { return module(0).getConsumers().size() == 2; }));
    expectCachedEqualsFull("a client accepted");

    first->send("one\n");
    ASSERT_TRUE(turnUntil([&] { return holds(*first, "you typed one"); }));
    expectCachedEqualsFull("a line typed and answered");

    // Text for every module's peers: the client's queue fills before its write turn.
    SystemMessage notice;
    notice.setText("notice\n");
    modules.handleInput(notice);
    expectCachedEqualsFull("a notice queued for every client");
    ASSERT_TRUE(turnUntil([&] { return holds(*first, "notice"); }));
    expectCachedEqualsFull("the notice delivered");

    LoopbackClient second(kPort + 1);
    ASSERT_TRUE(turnUntil([&] { return module(1).getConsumers().size() == 2; }));
    std::string const secondId = module(1).getConsumers()[1].id;
    first.reset();
    ASSERT_TRUE(turnUntil([&] { return module(0).getConsumers().size() == 1; }));
    expectCachedEqualsFull("a client gone");

    ASSERT_TRUE(module(1).detach(secondId));
    expectCachedEqualsFull("a client detached");

    module(2).restart();
    expectCachedEqualsFull("a program started again");

    module(2).stop();
    expectCachedEqualsFull("a module stopped");
}

TEST_F(ReadyTurn, OnlyTheModulesWithSomethingReadyAreVisited) {
    configure({"a", "b", "c", "d"}, kEcho);
    LoopbackClient client(kPort + 2);
    // Quiet: every start line read, and the client's (from the run log) delivered.
    ASSERT_TRUE(turnUntil([&] { return allStarted() && holds(client, "starting module \"c\""); }));

    FdSet rd, wr;
    modules.addFdsCached(rd, wr);
    client.send("x\n");
    ASSERT_EQ(waitFds(rd, wr, 5000), 1);
    modules.handleReady(rd, wr);
    EXPECT_FALSE(NXATestAccess::listedAsChanged(module(0)));
    EXPECT_FALSE(NXATestAccess::listedAsChanged(module(1)));
    EXPECT_TRUE(NXATestAccess::listedAsChanged(module(2))) << "the client's module was served";
    EXPECT_FALSE(NXATestAccess::listedAsChanged(module(3)));
    EXPECT_EQ(NXATestAccess::bufConn2Child(module(2)), "x\n");
    ASSERT_TRUE(turnUntil([&] { return holds(client, "you typed x"); }));
}

TEST_F(ReadyTurn, NumberGivenUpByOneModuleAndAcceptedByTheNextInOneTurnBelongsToTheNext) {
    configure({"a", "b"}, kEcho);
    auto leaving = std::make_unique<LoopbackClient>(kPort);
    ASSERT_TRUE(turnUntil([&] { return allStarted() && holds(*leaving, "starting module \"a\""); }));
    std::string const leavingId = module(0).getConsumers()[1].id;
    int const leavingFd = std::stoi(leavingId.substr(std::string("telnet:").size()));

    // Within one wait: a's client leaves and a silent client of b arrives.
    FdSet rd, wr;
    modules.addFdsCached(rd, wr);
    leaving.reset();
    LoopbackClient arriving(kPort + 1);
    ASSERT_GT(waitFds(rd, wr, 5000), 0);
    // Both arrived before the wait; it reports them together.
    ASSERT_TRUE(rd.isSet(leavingFd));
    ASSERT_TRUE(rd.isSet(NXATestAccess::serverfd(module(1))));
    modules.handleReady(rd, wr);
    ASSERT_EQ(module(0).getConsumers().size(), 1u);
    ASSERT_EQ(module(1).getConsumers().size(), 2u);
    ASSERT_EQ(module(1).getConsumers()[1].id, leavingId) << "the number was handed out again";
    expectCachedEqualsFull("the number moved from a to b");

    arriving.send("hello\n");
    ASSERT_TRUE(turnUntil([&] { return holds(arriving, "you typed hello"); }));
}

TEST_F(ReadyTurn, ANumberThatLeavesAModuleWatchingItForWritingLosesThatInterestWhenAnEarlierModuleTakesIt) {
    configure({"a", "b"}, kEcho);
    LoopbackClient watcher(kPort + 1);
    ASSERT_TRUE(turnUntil([&] { return allStarted() && holds(watcher, "starting module \"b\""); }));
    std::string const watcherId = module(1).getConsumers()[1].id;
    // b watches its client's number for writing: output waits for it.
    SystemMessage notice;
    notice.setText("for b's client\n");
    module(1).handleInput(notice);
    expectCachedEqualsFull("b's client has output waiting");
    std::string drained;
    module(0).getRunLog(drained);

    // Within one turn, a changes first; then b lets its client go and a
    // accepts a client that is given the same number, with nothing to write.
    LoopbackClient arriving(kPort);
    module(0).announce("running");
    ASSERT_TRUE(module(1).detach(watcherId));
    FdSet accept;
    accept.add(NXATestAccess::serverfd(module(0)));
    module(0).handleInput(accept);
    ASSERT_EQ(module(0).getConsumers().size(), 2u);
    ASSERT_EQ(module(0).getConsumers()[1].id, watcherId) << "the number was handed out again";
    expectCachedEqualsFull("the number moved from b to a");
}

TEST_F(ReadyTurn, AListConfiguredAgainOrScannedIsTakenAfresh) {
    configure({"a", "b"}, kEcho);
    expectCachedEqualsFull("first list");
    {
        nxatest::Capture quiet;
        modules.stop();
    }
    configure({"c", "d", "e"}, kEcho);
    expectCachedEqualsFull("second list");

    installModule("d", "no-such-machine", kEcho);
    {
        nxatest::Capture quiet;
        modules.scan(nxaclienttest::kModulesDir);
    }
    ASSERT_EQ(modules.getModuleNames(), (std::vector<std::string>{"c", "e"}));
    expectCachedEqualsFull("after the scan");
    LoopbackClient client(kPort + 2);
    ASSERT_TRUE(turnUntil([&] { return holds(client, "starting module \"e\""); }));
}

}  // namespace
