// The polling turn of a running module: output from the program's terminal to
// telnet clients, bus subscribers and the run log; typed input back to the
// program; subscriptions on the module's own bus connection.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>
#include <vlplatform/log_util.h>
#include <vlplatform/messages.h>

#include <cerrno>

#include "capture.h"
#include "loopback_client.h"
#include "module_harness.h"
#include "sandbox.h"
#include "shell.h"

namespace {

using nxamodtest::Access;
using nxamodtest::pollForRunLog;
using nxamodtest::pollOnce;
using nxamodtest::pollUntil;
using nxamodtest::publishSystem;
using nxamodtest::writeScript;

constexpr unsigned short kPort = 20100;

std::string startingLine(std::string const& name, pid_t pid) {
    return "[INFO] NXAModule::exec() pid=" + std::to_string(pid) + ": starting module \"" + name +
           "\", childpid=" + std::to_string(pid) + "\n";
}

// The lines of `text` that start with `prefix`, in order.
std::vector<std::string> linesWith(std::string const& text, std::string const& prefix) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        if (line.rfind(prefix, 0) == 0) lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

// A TCP client of the module's port.
struct Client : nxatest::LoopbackClient {
    Client() : LoopbackClient(kPort) {}
};

class ModulePump : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        NXAClient::debug = 0;
    }
    void TearDown() override {
        module.reset();
        NXAClient::debug = 0;
    }

    // Module demo running `script`, its starting line already drained from the run log.
    NXAClient::Module& start(std::string const& script) {
        writeScript("demo", script);
        module = std::make_unique<NXAClient::Module>("demo", kPort, proc);
        nxamodtest::runModule(*module);
        std::string log;
        EXPECT_TRUE(pollForRunLog(*module, log, "\n")) << log;
        EXPECT_EQ(log, startingLine("demo", Access::childpid(*module)));
        return *module;
    }
    NXAClient::Peers& peers() { return Access::peers(*module); }
    bool waitForPeer(std::string const& id, bool present = true) {
        return pollUntil(*module, [&] { return (peers().find(id) != nullptr) == present; });
    }
    // Turns until the module has read and handled a bus message whose trace
    // (level 1) contains `text`.
    bool waitForBusMessage(nxatest::Capture& capture, std::string const& text) {
        return pollUntil(*module, [&] { return capture.text().find(text) != std::string::npos; });
    }

    Proc proc{::getpid()};
    std::unique_ptr<NXAClient::Module> module;
};

TEST_F(ModulePump, RegistersSocketBusAndTerminalForReadingAndTerminalForWritingOnlyWithInput) {
    start("exec sleep 60");
    FdSet rd, wr;
    module->addFds(rd, wr);
    EXPECT_TRUE(rd.isSet(Access::serverfd(*module)));
    EXPECT_TRUE(rd.isSet(module->getBus()->fd()));
    EXPECT_TRUE(rd.isSet(Access::master(*module)));
    EXPECT_FALSE(wr.isSet(Access::master(*module)));
    EXPECT_FALSE(rd.isSet(Access::slave(*module)));
    Access::bufConn2Child(*module) = "x";
    FdSet rd2, wr2;
    module->addFds(rd2, wr2);
    EXPECT_TRUE(wr2.isSet(Access::master(*module)));
    Access::bufConn2Child(*module).clear();
}

TEST_F(ModulePump, TelnetClientSeesTheOutputAndTypesUnchangedBytes) {
    start("exec cat");
    Client client;
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
    std::string bytes("hello\n\xff\r\0\x03x", 11);
    client.send(bytes);
    ASSERT_TRUE(pollUntil(*module, [&] { return client.received().size() >= bytes.size(); }));
    EXPECT_EQ(client.received(), bytes);
    std::string log;
    module->getRunLog(log);
    EXPECT_EQ(log, bytes);
}

TEST_F(ModulePump, NewConnectionFirstReceivesTheRecentOutputThenTheEcho) {
    start("exec cat");
    module->handleInput([] {
        SystemMessage sm;
        sm.setText("earlier\n");
        return sm;
    }());
    nxamodtest::Background socat("(printf 'ping\\n'; sleep 30) | socat - TCP:127.0.0.1:20100");
    ASSERT_TRUE(pollUntil(*module, [&] { return socat.output() == "earlier\nping\n"; })) << socat.output();
}

TEST_F(ModulePump, NcClientTalksToTheProgramAsAUserWould) {
    start("while read line; do echo \"got $line\"; done");
    nxamodtest::Background nc("(printf 'one\\n'; sleep 30) | nc 127.0.0.1 20100");
    ASSERT_TRUE(pollUntil(*module, [&] { return nc.output().find("got one\n") != std::string::npos; }))
        << nc.output();
    EXPECT_EQ(nc.output(), "got one\n");  // raw terminal: no echo by the terminal itself
}

TEST_F(ModulePump, AcceptedConnectionIsTracedAtLevelOne) {
    start("exec sleep 60");
    NXAClient::debug = 1;
    nxatest::Capture capture;
    Client client;
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
    std::vector<std::string> lines = linesWith(capture.release(), "[DEBUG] NXAModule::");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("[DEBUG] NXAModule::handleInput() accepted connection: fd=", 0), 0u);
    std::string fd = lines[0].substr(lines[0].find("fd=") + 3);
    EXPECT_NE(peers().find("telnet:" + fd), nullptr);
}

TEST_F(ModulePump, OneConnectionIsAcceptedPerTurn) {
    start("exec sleep 60");
    Client first;
    Client second;
    // Both are queued by the kernel before the module's next turn.
    ASSERT_TRUE(nxatest::waitUntil([&] {
        return nxatest::shell("ss -tnH state established '( sport = :20100 )' | wc -l").output == "2\n";
    }));
    pollOnce(*module);
    EXPECT_EQ(peers().size(), 2u);
    pollOnce(*module);
    EXPECT_EQ(peers().size(), 3u);
}

// The program writes 2000 bytes in one write; each turn reads at most 512.
TEST_F(ModulePump, TwoThousandBytesAreReadAs512512512And464InFourTurns) {
    std::string data;
    for (int i = 0; i < 2000; ++i) data += static_cast<char>('A' + i % 26);
    nxatest::writeFile("/var/opt/velmora/data", data);
    start("read go; head -c 2000 /var/opt/velmora/data; exec sleep 60");
    int master = Access::master(*module);
    Access::bufConn2Child(*module) = "go\n";
    ASSERT_TRUE(pollUntil(*module, [&] { return Access::bufConn2Child(*module).empty(); }));
    // Not one turn more until all 2000 bytes wait on the terminal.
    ASSERT_TRUE(nxatest::waitUntil([&] {
        int waiting = 0;
        return ::ioctl(master, FIONREAD, &waiting) == 0 && waiting == 2000;
    }));
    NXAClient::debug = 2;
    nxatest::Capture capture;
    for (int turn = 0; turn < 4; ++turn) pollOnce(*module, 1000);
    std::string trace = capture.release();
    NXAClient::debug = 0;
    std::string m = std::to_string(master);
    std::vector<std::string> expected = {
        "[DEBUG] NXAModule::handleInput() read (512) data from the PTY master=" + m + " to bufChild2Conn",
        "[DEBUG] NXAModule::handleInput() read (512) data from the PTY master=" + m + " to bufChild2Conn",
        "[DEBUG] NXAModule::handleInput() read (512) data from the PTY master=" + m + " to bufChild2Conn",
        "[DEBUG] NXAModule::handleInput() read (464) data from the PTY master=" + m + " to bufChild2Conn"};
    EXPECT_EQ(linesWith(trace, "[DEBUG] NXAModule::"), expected);

    NXAClient::PeerLog* log = module->getRunLogPeer();
    ASSERT_NE(log, nullptr);
    std::vector<std::size_t> sizes;
    for (auto const& block : log->getQueue()) sizes.push_back(block.data->bytes.size());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{512, 512, 512, 464}));
    std::string out;
    module->getRunLog(out);
    EXPECT_EQ(out, data);

    // Each chunk is dumped under its read line: 2000 / 16 lines in all.
    std::vector<std::string> dump = linesWith(trace, "master: ");
    EXPECT_EQ(dump.size(), 125u);
    EXPECT_EQ(dump.front(),
              "master: 00000000: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP");
}

TEST_F(ModulePump, NoReadTraceBelowLevelTwo) {
    start("read go; echo more; exec sleep 60");
    NXAClient::debug = 1;
    nxatest::Capture capture;
    Access::bufConn2Child(*module) = "go\n";
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "more\n"));
    EXPECT_EQ(capture.release(), "");
}

TEST_F(ModulePump, WaitingInputIsWrittenInOneWriteTracedAtLevelTwo) {
    start("exec cat");
    int master = Access::master(*module);
    Client a;
    Client b;
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 3; }));
    a.send("from-a ");
    b.send("from-b\n");
    // Gather both in one turn: wait until both bytes wait at the module's side.
    ASSERT_TRUE(nxatest::waitUntil([&] {
        return nxatest::shell("ss -tnH '( sport = :20100 )' | awk '{s+=$2} END {print s}'").output == "14\n";
    }));
    NXAClient::debug = 2;
    nxatest::Capture capture;
    pollOnce(*module);
    EXPECT_EQ(Access::bufConn2Child(*module), "from-a from-b\n");
    pollOnce(*module);
    std::string trace = capture.release();
    NXAClient::debug = 0;
    EXPECT_EQ(Access::bufConn2Child(*module), "");
    EXPECT_EQ(linesWith(trace, "[DEBUG] NXAModule::handleOutput()"),
              (std::vector<std::string>{
                  "[DEBUG] NXAModule::handleOutput() write (14/14) data from bufConn2Child to "
                  "the PTY master=" +
                  std::to_string(master)}));
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "from-b\n"));
    EXPECT_EQ(log, "from-a from-b\n");
}

TEST_F(ModulePump, SubscriberStartsAndStopsOutputWithBusMessages) {
    start("exec cat");
    nxamodtest::BusSubscriber viewer("viewer");
    publishSystem("NXAModule_demo", "viewer", 4, "71-NXAStartOutput");
    ASSERT_TRUE(waitForPeer("viewer"));
    EXPECT_NE(dynamic_cast<NXAClient::PeerVLPBus*>(peers().find("viewer")), nullptr);

    Access::bufConn2Child(*module) = "shown\n";
    ASSERT_TRUE(pollUntil(*module, [&] { return viewer.output().find("shown") != std::string::npos; }));
    EXPECT_NE(
        viewer.output().find("vlp-sender:NXAModule_demo vlp-type:system vlp-id:128 vlp-kind:34 shown\n\n"),
        std::string::npos)
        << viewer.output();

    publishSystem("NXAModule_demo", "viewer", 4, "72-NXAStopOutput");
    ASSERT_TRUE(waitForPeer("viewer", false));
    Access::bufConn2Child(*module) = "hidden\n";
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "hidden\n"));
    // A message sent afterwards arrives; "hidden" never does.
    nxatest::shell("mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t vlpbus/viewer -m after");
    ASSERT_TRUE(viewer.waitFor(" after\n"));
    EXPECT_EQ(viewer.output().find("hidden"), std::string::npos) << viewer.output();
}

TEST_F(ModulePump, NewSubscriberFirstReceivesTheRecentOutput) {
    start("exec sleep 60");
    SystemMessage sm;
    sm.setText("recent");
    module->handleInput(sm);
    nxamodtest::BusSubscriber viewer("viewer");
    publishSystem("NXAModule_demo", "viewer", 4, "71-NXAStartOutput");
    ASSERT_TRUE(waitForPeer("viewer"));
    ASSERT_TRUE(pollUntil(*module, [&] { return viewer.output().find(" recent\n") != std::string::npos; }))
        << viewer.output();
}

TEST_F(ModulePump, StartMessageOfAnotherKindIsIgnored) {
    start("exec sleep 60");
    NXAClient::debug = 1;
    nxatest::Capture capture;
    publishSystem("NXAModule_demo", "viewer", 5, "71-NXAStartOutput");
    ASSERT_TRUE(waitForBusMessage(capture, "sm="));
    EXPECT_EQ(peers().find("viewer"), nullptr);
    EXPECT_EQ(peers().size(), 1u);
}

TEST_F(ModulePump, OtherTextsAreIgnored) {
    start("exec sleep 60");
    NXAClient::debug = 1;
    nxatest::Capture capture;
    for (char const* text : {"71-NXAStartOutputX", "71-nxastartoutput", "71-NXAStartOutput ", ""})
        publishSystem("NXAModule_demo", "viewer", 4, text);
    publishSystem("NXAModule_demo", "viewer", 4, "72-NXAStopOutput");
    ASSERT_TRUE(waitForBusMessage(capture, "cannot erase peer"));
    EXPECT_EQ(peers().size(), 1u);
    EXPECT_EQ(
        linesWith(capture.release(), "[WARNING] "),
        (std::vector<std::string>{"[WARNING] NXAPeer::erase() cannot erase peer viewer: did not exist"}));
}

TEST_F(ModulePump, SecondStartFromTheSameSenderOnlyWarns) {
    start("exec sleep 60");
    nxatest::Capture capture;
    publishSystem("NXAModule_demo", "viewer", 4, "71-NXAStartOutput");
    publishSystem("NXAModule_demo", "viewer", 4, "71-NXAStartOutput");
    ASSERT_TRUE(waitForBusMessage(capture, "already exists"));
    EXPECT_EQ(capture.release(), "[WARNING] NXAPeer::add() cannot add peer viewer: already exists\n");
    EXPECT_EQ(peers().size(), 2u);
}

TEST_F(ModulePump, ReceivedMessagesAreTracedAtLevelOne) {
    start("exec sleep 60");
    NXAClient::debug = 1;
    nxatest::Capture capture;
    publishSystem("NXAModule_demo", "viewer", 4, "71-NXAStartOutput");
    ASSERT_TRUE(waitForPeer("viewer"));
    std::string trace = capture.release();
    RouterMessage expected("viewer", [] {
        auto sm = std::make_unique<SystemMessage>(128, 0);
        sm->setKind(4);
        sm->setText("71-NXAStartOutput");
        return sm;
    }());
    std::string rm = makeString(static_cast<MessageBase const&>(expected));
    std::string sm = makeString(*expected.message());
    EXPECT_EQ(
        linesWith(trace, "[DEBUG] NXAModule::"),
        (std::vector<std::string>{
            "[DEBUG] NXAModule::handleInput() " + rm, "[DEBUG] NXAModule::handleMessage() msg=" + rm,
            "[DEBUG] NXAModule::handleMessage() rm=" + rm, "[DEBUG] NXAModule::handleMessage() sm=" + sm}));
}

TEST_F(ModulePump, HandleMessageLooksOnlyAtRoutedSystemMessages) {
    start("exec sleep 60");
    NXAClient::debug = 1;
    SystemMessage bare;
    bare.setKind(4);
    bare.setText("71-NXAStartOutput");
    RouterMessage empty("viewer", nullptr);
    RouterMessage state("viewer", std::make_unique<SystemSetStateVlpBusMessage>("running", "", 0));
    nxatest::Capture capture;
    module->handleMessage(bare);
    module->handleMessage(empty);
    module->handleMessage(state);
    std::string trace = capture.release();
    EXPECT_EQ(peers().size(), 1u);
    EXPECT_EQ(
        trace,
        "[DEBUG] NXAModule::handleMessage() msg=" + makeString(static_cast<MessageBase const&>(bare)) +
            "\n[DEBUG] NXAModule::handleMessage() msg=" + makeString(static_cast<MessageBase const&>(empty)) +
            "\n[DEBUG] NXAModule::handleMessage() rm=" + makeString(static_cast<MessageBase const&>(empty)) +
            "\n[DEBUG] NXAModule::handleMessage() msg=" + makeString(static_cast<MessageBase const&>(state)) +
            "\n[DEBUG] NXAModule::handleMessage() rm=" + makeString(static_cast<MessageBase const&>(state)) +
            "\n");
}

TEST_F(ModulePump, SystemMessageTextGoesToThePeersNotToTheProgram) {
    start("exec cat");
    Client client;
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
    SystemMessage sm;
    sm.setKind(34);
    sm.setText(std::string("hello\0!", 7));
    module->handleInput(sm);
    EXPECT_EQ(Access::bufConn2Child(*module), "");
    ASSERT_TRUE(pollUntil(*module, [&] { return client.received().size() >= 7; }));
    EXPECT_EQ(client.received(), std::string("hello\0!", 7));
    std::string log;
    module->getRunLog(log);
    EXPECT_EQ(log, std::string("hello\0!", 7));
}

TEST_F(ModulePump, SystemMessageWithEmptyTextPushesNothing) {
    start("exec sleep 60");
    Client client;
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
    SystemMessage sm;
    sm.setKind(34);
    module->handleInput(sm);
    EXPECT_TRUE(module->getRunLogPeer()->getQueue().empty());
    for (int i = 0; i < 3; ++i) pollOnce(*module, 10);
    EXPECT_EQ(client.received(), "");
}

TEST_F(ModulePump, BusServerThatGoesIsReportedOnce) {
    start("exec sleep 60");
    nxatest::Capture capture;
    nxatest::brokerKill();
    ASSERT_TRUE(pollUntil(*module, [&] { return capture.text().find("gone") != std::string::npos; }));
    for (int i = 0; i < 3; ++i) pollOnce(*module, 10);
    EXPECT_EQ(capture.release(), "[WARNING] NXAModule::handleInput() VLPBus server is gone\n");
    // The rest of the module goes on.
    Client client;
    EXPECT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
}

TEST_F(ModulePump, FullCycleLeavesNoDescriptorBehind) {
    int before = nxatest::openDescriptorCount();
    start("exec cat");
    {
        Client client;
        ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 2; }));
        client.send("x");
        ASSERT_TRUE(pollUntil(*module, [&] { return client.received() == "x"; }));
    }
    ASSERT_TRUE(pollUntil(*module, [&] { return peers().size() == 1; }));  // the client's end of stream
    module.reset();
    EXPECT_EQ(nxatest::openDescriptorCount(), before);
}

// The parent keeps the slave open, so a program that ends is not seen as an
// end of file: its last output stays, and polling goes on quietly.
TEST_F(ModulePump, ProgramThatEndsLeavesItsLastOutputAndPollingGoesOnQuietly) {
    NXAClient::debug = 0;
    start("read go; echo bye");
    Access::bufConn2Child(*module) = "go\n";
    std::string log;
    ASSERT_TRUE(pollForRunLog(*module, log, "bye\n"));
    nxamodtest::ChildEnd end = nxamodtest::waitChildEnd(Access::childpid(*module));
    EXPECT_EQ(end.code, CLD_EXITED);
    EXPECT_EQ(end.status, 0);
    NXAClient::debug = 1;
    nxatest::Capture capture;
    for (int i = 0; i < 5; ++i) EXPECT_NO_THROW(pollOnce(*module, 20));
    EXPECT_EQ(capture.release(), "");
    EXPECT_NE(Access::master(*module), -1);
}

}  // namespace
