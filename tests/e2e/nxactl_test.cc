// nxactl against the real nxahost and its broker: every command, what it
// prints, its exit status on every error, and the host's controls answering
// (or ignoring) what real bus clients send.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <csignal>
#include <set>
#include <sstream>

#include "clients.h"
#include "host_process.h"
#include "nxactl_runs.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

std::string sources() {
    return scratchDir() + "/src";
}

// A program that answers every line it reads with "got <line>".
constexpr char kAnswering[] =
    "printf 'ready\\r\\n'\n"
    "while IFS= read -r line; do printf 'got <%s>\\r\\n' \"$line\"; done";

// A program that prints "tick <n> " and the byte 0xff ten times a second.
constexpr char kTicking[] = "i=0; while :; do i=$((i+1)); printf 'tick %d \\377\\n' $i; sleep 0.1; done";

// A program that prints as fast as it can.
constexpr char kFlooding[] = "exec yes 'a line of output'";

constexpr char kUsageHint[] = "usage: nxactl [--json]";

std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> wordsOf(std::string const& line) {
    std::vector<std::string> words;
    std::istringstream in(line);
    for (std::string word; in >> word;) words.push_back(word);
    return words;
}

// The line of a table whose first column is `first`; empty when none.
std::string rowOf(std::string const& table, std::string const& first) {
    for (std::string const& line : linesOf(table)) {
        std::vector<std::string> const words = wordsOf(line);
        if (!words.empty() && words[0] == first) return line;
    }
    return "";
}

// The consumers of `kind` in a `clients --json` list.
std::vector<json> consumersOfKind(json const& clients, std::string const& kind) {
    std::vector<json> found;
    if (!clients.is_array()) return found;
    for (json const& c : clients) {
        if (c.value("kind", std::string()) == kind) found.push_back(c);
    }
    return found;
}

// The local port of a connected socket.
unsigned localPort(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

// Reads everything until the peer closes the connection (end of stream or a
// reset); false when it is still open after `timeout`.
bool readUntilClosed(int fd, milliseconds timeout = kPatience) {
    return nxatest::waitUntil(
        [fd] {
            pollfd p{fd, POLLIN, 0};
            while (::poll(&p, 1, 0) == 1) {
                char buf[65536];
                ssize_t const n = ::recv(fd, buf, sizeof buf, 0);
                if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
                if (n < 0) return false;
            }
            return false;
        },
        timeout);
}

// The pid of each live child of the host, by its program's short name, once
// every one of `programs` is among them: a child just forked carries the host's
// name until it has started its program.
std::map<std::string, long long> childPids(HostProcess const& host,
                                           std::vector<std::string> const& programs) {
    std::map<std::string, long long> pids;
    bool const started = nxatest::waitUntil(
        [&] {
            pids.clear();
            for (ProcessInfo const& child : childrenOf(host.pid())) pids[child.comm] = child.pid;
            for (std::string const& program : programs) {
                if (pids.count(program) == 0) return false;
            }
            return true;
        },
        kPatience);
    EXPECT_TRUE(started) << "children of the host: " << pids.size();
    return pids;
}

// Starts the host on `modules` (ports from 20100 on) and waits until each runs.
std::unique_ptr<HostProcess> startHost(std::vector<std::pair<std::string, std::string>> const& modules,
                                       std::vector<std::string> options = {},
                                       std::vector<std::string> const& env = {}) {
    std::vector<std::string> folders;
    std::vector<std::pair<std::string, unsigned>> ports;
    for (auto const& [name, body] : modules) {
        folders.push_back(writeModule(sources(), name, "noarch", body));
        options.push_back(name);
        ports.emplace_back(name, 20100 + static_cast<unsigned>(ports.size()));
    }
    installPackage(folders);
    auto host = std::make_unique<HostProcess>(options, env);
    EXPECT_TRUE(waitRunning(*host, ports)) << describe(*host);
    return host;
}

TEST(Nxactl, WithoutAHostEveryCommandGivesUpAfterTheTimeoutWithStatus1) {
    NXA_REQUIRE_SANDBOX();
    std::vector<std::vector<std::string>> const commands = {{"status"},
                                                            {"clients", "echo"},
                                                            {"kick", "echo", "telnet:5"},
                                                            {"restart", "echo"},
                                                            {"follow", "echo"}};
    for (auto command : commands) {
        command.insert(command.begin(), {"--timeout", "1"});
        CtlRun const run = runCtl(command);
        EXPECT_EQ(run.status, 1) << command[2];
        EXPECT_EQ(run.err, "nxactl: no answer from NXAHost on the bus within 1 s (is nxahost running?)\n");
        EXPECT_EQ(run.out, "");
        EXPECT_GE(run.took, 1000ms) << command[2];
        // Sooner than the default time-out of 3 s: the one given was kept to.
        EXPECT_LT(run.took, 3000ms) << command[2];
    }
    CtlRun const named = runCtl({"--timeout", "0.5", "--bus-name", "Elsewhere", "status"});
    EXPECT_EQ(named.status, 1);
    EXPECT_EQ(named.err, "nxactl: no answer from Elsewhere on the bus within 0.5 s (is nxahost running?)\n");
    EXPECT_GE(named.took, 500ms);
    EXPECT_LT(named.took, 3000ms);
}

TEST(Nxactl, WithoutABrokerItSaysSoWithStatus1) {
    NXA_REQUIRE_SANDBOX();
    nxatest::brokerStop();
    for (std::string const command : {"status", "follow"}) {
        std::vector<std::string> args{"--timeout", "1", command};
        if (command == "follow") args.push_back("echo");
        CtlRun const run = runCtl(args);
        EXPECT_EQ(run.status, 1) << command;
        EXPECT_EQ(run.err, "nxactl: cannot reach the bus broker on 127.0.0.1:20010 within 1 s\n") << command;
        EXPECT_EQ(run.out, "");
        EXPECT_LT(run.took, 3000ms);
    }
}

TEST(Nxactl, BadUsageExits2WithTheReasonAndAUsageHint) {
    // None of these reaches the bus: no sandbox is needed, and none waits.
    struct Case {
        std::vector<std::string> args;
        std::string reason;
    };
    std::vector<Case> const cases = {
        {{}, "no command given"},
        {{"frob"}, "unknown command frob"},
        {{"--frob", "status"}, "unknown option --frob"},
        {{"-x", "status"}, "unknown option -x"},
        {{"status", "extra"}, "status: too many arguments"},
        {{"clients"}, "clients: missing arguments"},
        {{"clients", "a", "b"}, "clients: too many arguments"},
        {{"kick", "echo"}, "kick: missing arguments"},
        {{"kick", "echo", "telnet:5", "more"}, "kick: too many arguments"},
        {{"restart"}, "restart: missing arguments"},
        {{"follow"}, "follow: missing arguments"},
        {{"follow", "a", "b"}, "follow: too many arguments"},
        {{"--timeout", "0", "status"}, "--timeout wants a positive number of seconds, not 0"},
        {{"--timeout", "-1", "status"}, "--timeout wants a positive number of seconds, not -1"},
        {{"--timeout", "3x", "status"}, "--timeout wants a positive number of seconds, not 3x"},
        {{"status", "--timeout"}, "option --timeout wants a value"},
        {{"status", "--bus-name"}, "option --bus-name wants a value"},
        {{"--json", "kick", "echo", "telnet:5"}, "--json goes with status, clients and package only"},
        {{"--json", "follow", "echo"}, "--json goes with status, clients and package only"},
        {{"--json", "reload"}, "--json goes with status, clients and package only"},
        {{"reload", "now"}, "reload: too many arguments"},
        {{"package", "now"}, "package: too many arguments"},
        {{"--allow-downgrade", "status"}, "--allow-downgrade goes with reload only"},
    };
    for (Case const& c : cases) {
        CtlRun const run = runCtl(c.args);
        std::string const shown = c.args.empty() ? "(nothing)" : c.args[0];
        EXPECT_EQ(run.status, 2) << shown << ": " << run.err;
        std::vector<std::string> const lines = linesOf(run.err);
        ASSERT_FALSE(lines.empty()) << shown;
        EXPECT_EQ(lines[0], "nxactl: " + c.reason) << shown;
        EXPECT_NE(run.err.find(kUsageHint), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "") << shown;
        // Sooner than the default time-out of 3 s: nothing was waited for.
        EXPECT_LT(run.took, 3000ms) << shown;
    }
}

TEST(Nxactl, HelpListsEveryCommandAndOptionAndExits0) {
    CtlRun const run = runCtl({"--help"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    for (std::string const word :
         {"usage: nxactl", "status", "clients MODULE", "kick MODULE ID", "restart MODULE", "follow MODULE",
          "reload", "package", "--allow-downgrade", "--json", "--bus-name NAME", "--timeout SECONDS",
          "127.0.0.1:20010"}) {
        EXPECT_NE(run.out.find(word), std::string::npos) << word;
    }
    // --help wins wherever it stands, even after a bad command.
    CtlRun const late = runCtl({"frob", "--help"});
    EXPECT_EQ(late.status, 0);
    EXPECT_EQ(late.out, run.out);
}

TEST(Nxactl, StatusShowsTheRunningModulesWithTheHostsChildrenClientsAndSubscribers) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"talker", kTicking}, {"quiet", kAnswering}});
    Background nc(ncCommand(20100));
    ASSERT_TRUE(nc.waitFor("tick")) << nc.output();
    BusSubscriber viewer("viewer");
    bool const subscribed = nxatest::waitUntil(
        [&] {
            publishSystem("NXAModule_talker", "viewer", 4, "71-NXAStartOutput");
            return viewer.waitFor("tick", 2s);
        },
        kPatience);
    ASSERT_TRUE(subscribed) << viewer.output() << describe(*host);

    json const modules = ctlJson({"status"});
    ASSERT_TRUE(modules.is_array()) << modules;
    ASSERT_EQ(modules.size(), 2u) << modules;
    EXPECT_EQ(modules[0]["name"], "talker");
    EXPECT_EQ(modules[1]["name"], "quiet");
    std::map<std::string, long long> const children = childPids(*host, {"talker", "quiet"});
    ASSERT_EQ(children.size(), 2u);
    for (json const& module : modules) {
        std::string const name = module["name"];
        EXPECT_EQ(module["state"], "running") << name;
        EXPECT_EQ(module["pid"].get<long long>(), children.at(name)) << name;
        EXPECT_EQ(module["restarts"], 0) << name;
        EXPECT_EQ(module["last_end"], "") << name;
        EXPECT_GT(module["uptime"].get<double>(), 0.0) << name;
        EXPECT_LT(module["uptime"].get<double>(), 60.0) << name;
        EXPECT_FALSE(module.contains("restart_in")) << name;
    }
    json const& talker = modules[0];
    json const& quiet = modules[1];
    EXPECT_EQ(talker["port"], 20100);
    EXPECT_EQ(quiet["port"], 20101);
    EXPECT_EQ(talker["clients"], 1);
    EXPECT_EQ(talker["subscribers"], 1);
    EXPECT_GT(talker["bytes_out"].get<long long>(), 0);
    EXPECT_EQ(talker["chunks_lost"], 0);
    EXPECT_EQ(quiet["clients"], 0);
    EXPECT_EQ(quiet["subscribers"], 0);

    CtlRun const table = runCtl({"status"});
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.err, "");
    std::vector<std::string> const lines = linesOf(table.out);
    // The table, a blank line, then the package: unsigned here, never rolled back.
    ASSERT_EQ(lines.size(), 5u) << table.out;
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(lines[4].rfind("package ", 0), 0u) << table.out;
    EXPECT_NE(lines[4].find(" (blake2b "), std::string::npos) << table.out;
    EXPECT_NE(lines[4].find(", last good "), std::string::npos) << table.out;
    EXPECT_EQ(wordsOf(lines[0]),
              (std::vector<std::string>{"MODULE", "PORT", "STATE", "PID", "UPTIME", "RESTARTS", "LAST", "END",
                                        "CLIENTS", "SUBSCRIBERS", "BYTES", "OUT", "CHUNKS", "LOST"}))
        << table.out;
    // Aligned: the last column is right-aligned under its title, so every line is as long.
    EXPECT_EQ(lines[1].size(), lines[0].size()) << table.out;
    EXPECT_EQ(lines[2].size(), lines[0].size()) << table.out;
    std::vector<std::string> const talkerRow = wordsOf(rowOf(table.out, "talker"));
    ASSERT_EQ(talkerRow.size(), 11u) << table.out;
    EXPECT_EQ(talkerRow[1], "20100");
    EXPECT_EQ(talkerRow[2], "running");
    EXPECT_EQ(talkerRow[3], std::to_string(children.at("talker")));
    EXPECT_EQ(talkerRow[5], "0");
    EXPECT_EQ(talkerRow[6], "-");
    EXPECT_EQ(talkerRow[7], "1");
    EXPECT_EQ(talkerRow[8], "1");
    EXPECT_EQ(talkerRow[10], "0");
    std::vector<std::string> const quietRow = wordsOf(rowOf(table.out, "quiet"));
    ASSERT_EQ(quietRow.size(), 11u) << table.out;
    EXPECT_EQ(quietRow[3], std::to_string(children.at("quiet")));
    EXPECT_EQ(quietRow[7], "0");
    EXPECT_EQ(quietRow[8], "0");
}

TEST(Nxactl, StatusTellsAProgramThatEndedFromOneThatWillStartAgain) {
    NXA_REQUIRE_SANDBOX();
    // Under the default policy (on-failure) a status of 0 ends the program for
    // good and a status of 4 has it started again, later each time.
    auto host = startHost({{"done", "printf 'bye\\n'; exit 0"}, {"again", "printf 'bye\\n'; exit 4"}});
    json modules;
    bool const settled = nxatest::waitUntil(
        [&] {
            modules = ctlJson({"status"});
            json const done = moduleNamed(modules, "done");
            json const again = moduleNamed(modules, "again");
            return !done.is_null() && done["state"] == "ended" && !again.is_null() &&
                   again["state"] == "restarting" && again["restarts"].get<int>() >= 2;
        },
        kPatience);
    ASSERT_TRUE(settled) << modules << describe(*host);
    json const done = moduleNamed(modules, "done");
    json const again = moduleNamed(modules, "again");
    EXPECT_EQ(done["last_end"], "exit status 0");
    EXPECT_EQ(done["restarts"], 0);
    EXPECT_EQ(done["uptime"], 0.0);
    EXPECT_FALSE(done.contains("restart_in"));
    EXPECT_EQ(again["last_end"], "exit status 4");
    ASSERT_TRUE(again.contains("restart_in")) << again;
    EXPECT_GT(again["restart_in"].get<double>(), 0.0);
    EXPECT_LE(again["restart_in"].get<double>(), 60.0);

    // The table says the same; "again" is caught while it waits (after two
    // restarts its delay is 4 s and more, its run a moment).
    std::string table;
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            table = runCtl({"status"}).out;
            return rowOf(table, "again").find("restarting in") != std::string::npos;
        },
        kPatience))
        << table;
    std::vector<std::string> const doneRow = wordsOf(rowOf(table, "done"));
    EXPECT_EQ(doneRow, (std::vector<std::string>{"done", "20100", "ended", "-", "-", "0", "exit", "status",
                                                 "0", "0", "0", done["bytes_out"].dump(), "0"}))
        << table;
    std::vector<std::string> const againRow = wordsOf(rowOf(table, "again"));
    ASSERT_EQ(againRow.size(), 16u) << table;
    EXPECT_EQ(againRow[2] + " " + againRow[3], "restarting in");
    int const seconds = std::stoi(againRow[4]);
    EXPECT_GE(seconds, 1) << table;
    EXPECT_LE(seconds, 60) << table;
    EXPECT_EQ(againRow[5], "s");
    EXPECT_EQ(againRow[6], "-");
    EXPECT_EQ(againRow[7], "-");
    EXPECT_EQ(againRow[9] + " " + againRow[10] + " " + againRow[11], "exit status 4");
}

TEST(Nxactl, ClientsListsAnAttachedNcWithItsAddress) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"answer", kAnswering}});
    // nc from a port of our choosing, so that its address is known.
    Background nc("exec nc -p 40123 127.0.0.1 20100", true);
    ASSERT_TRUE(nc.waitFor("ready\r\n")) << nc.output();

    json const clients = ctlJson({"clients", "answer"});
    std::vector<json> const tcp = consumersOfKind(clients, "tcp");
    ASSERT_EQ(tcp.size(), 1u) << clients;
    json const& client = tcp[0];
    std::string const id = client["id"];
    EXPECT_EQ(id.rfind("telnet:", 0), 0u) << client;
    EXPECT_EQ(client["address"], "127.0.0.1:40123");
    EXPECT_GE(client["attached"].get<double>(), 0.0);
    EXPECT_LT(client["attached"].get<double>(), 60.0);
    EXPECT_GT(client["delivered"].get<long long>(), 0);
    EXPECT_EQ(client["lost_chunks"], 0);
    EXPECT_EQ(client["lost_bytes"], 0);
    // The run log is a consumer too.
    EXPECT_EQ(consumersOfKind(clients, "log").size(), 1u) << clients;
    EXPECT_EQ(clients.size(), 2u) << clients;

    CtlRun const table = runCtl({"clients", "answer"});
    ASSERT_EQ(table.status, 0) << table.err;
    std::vector<std::string> const lines = linesOf(table.out);
    ASSERT_EQ(lines.size(), 3u) << table.out;
    EXPECT_EQ(wordsOf(lines[0]), (std::vector<std::string>{"ID", "KIND", "ADDRESS", "ATTACHED", "DELIVERED",
                                                           "QUEUED", "LOST", "CHUNKS", "LOST", "BYTES"}))
        << table.out;
    EXPECT_EQ(lines[1].size(), lines[0].size()) << table.out;
    std::vector<std::string> const row = wordsOf(rowOf(table.out, id));
    ASSERT_EQ(row.size(), 8u) << table.out;
    EXPECT_EQ(row[1], "tcp");
    EXPECT_EQ(row[2], "127.0.0.1:40123");
    EXPECT_EQ(row[4], client["delivered"].dump());
    EXPECT_EQ(row[6], "0");
    EXPECT_EQ(row[7], "0");
    std::vector<std::string> const log = wordsOf(rowOf(table.out, "client"));
    ASSERT_EQ(log.size(), 8u) << table.out;
    EXPECT_EQ(log[1], "log");
    EXPECT_EQ(log[2], "-");
}

TEST(Nxactl, AClientThatNeverReadsLosesOutputAndIsKicked) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"flood", kFlooding}});
    RawClient reader(20100, 4096);
    ASSERT_TRUE(reader.awaitAnswer()) << describe(*host);
    std::string const address = "127.0.0.1:" + std::to_string(localPort(reader.fd()));
    auto find = [&address](json const& clients) {
        for (json const& c : consumersOfKind(clients, "tcp")) {
            if (c.value("address", std::string()) == address) return c;
        }
        return json();
    };

    json first;
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            first = find(ctlJson({"clients", "flood"}));
            return !first.is_null() && first["lost_chunks"].get<long long>() > 0;
        },
        kPatience))
        << first;
    // The kernel's send buffer grows while the connection is young and may
    // take the whole queue for a moment; once it is full for good, output
    // waits in the queue and the oldest goes.
    json later;
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            later = find(ctlJson({"clients", "flood"}));
            return !later.is_null() &&
                   later["lost_chunks"].get<long long>() > first["lost_chunks"].get<long long>() &&
                   later["lost_bytes"].get<long long>() > first["lost_bytes"].get<long long>() &&
                   later["queued_chunks"].get<long long>() > 0;
        },
        kPatience))
        << first << later;
    // Every byte pushed to it was delivered, dropped or is still queued.
    for (json const& sample : {first, later}) {
        EXPECT_EQ(sample["delivered"].get<unsigned long long>() +
                      sample["lost_bytes"].get<unsigned long long>() +
                      sample["queued_bytes"].get<unsigned long long>(),
                  sample["pushed"].get<unsigned long long>())
            << sample;
    }
    EXPECT_GT(later["queued_bytes"].get<long long>(), 0) << later;
    // Its losses show in the module's status too.
    json const flood = moduleNamed(ctlJson({"status"}), "flood");
    EXPECT_GE(flood["chunks_lost"].get<long long>(), later["lost_chunks"].get<long long>()) << flood;

    std::string const id = later["id"];
    CtlRun const kick = runCtl({"kick", "flood", id});
    EXPECT_EQ(kick.status, 0) << kick.err;
    EXPECT_EQ(kick.out, "detached client " + id + " from module flood\n");
    EXPECT_EQ(kick.err, "");
    json const after = ctlJson({"clients", "flood"});
    EXPECT_TRUE(consumerWithId(after, id).is_null()) << after;
    EXPECT_TRUE(consumersOfKind(after, "tcp").empty()) << after;
    EXPECT_TRUE(readUntilClosed(reader.fd())) << "the kicked client's connection stays open";
    // The module goes on serving.
    Background nc(ncCommand(20100));
    EXPECT_TRUE(nc.waitFor("a line of output")) << nc.output();
    EXPECT_TRUE(host->running());
}

TEST(Nxactl, WhatDoesNotExistIsRefusedWithTheHostsReasonAndStatus1) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"echo", kAnswering}});
    struct Case {
        std::vector<std::string> args;
        std::string error;
    };
    std::vector<Case> const cases = {
        {{"clients", "nosuch"}, "no module named nosuch"},
        {{"--json", "clients", "nosuch"}, "no module named nosuch"},
        {{"kick", "nosuch", "telnet:5"}, "no module named nosuch"},
        {{"kick", "echo", "telnet:99"}, "module echo has no client telnet:99"},
        {{"kick", "echo", "client"}, "client is the run log of echo, not a client"},
        {{"restart", "nosuch"}, "no module named nosuch"},
        {{"follow", "nosuch"}, "no module named nosuch"},
    };
    for (Case const& c : cases) {
        CtlRun const run = runCtl(c.args);
        EXPECT_EQ(run.status, 1) << c.args[0];
        EXPECT_EQ(run.err, "nxactl: " + c.error + "\n");
        EXPECT_EQ(run.out, "") << c.args[0];
    }
    // Nothing changed: the program runs on, never restarted, its log still attached.
    json const echo = moduleNamed(ctlJson({"status"}), "echo");
    EXPECT_EQ(echo["state"], "running");
    EXPECT_EQ(echo["restarts"], 0);
    EXPECT_EQ(echo["pid"].get<long long>(), childPids(*host, {"echo"}).at("echo"));
    EXPECT_EQ(consumersOfKind(ctlJson({"clients", "echo"}), "log").size(), 1u);
}

TEST(Nxactl, RestartStartsANewProgramForTheSameClientsAndLeavesTheNeighbour) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"answer", kAnswering}, {"neighbour", kAnswering}});
    Background nc(ncCommand(20100), true);
    ASSERT_TRUE(nc.waitFor("ready\r\n")) << nc.output();
    json const before = ctlJson({"status"});
    long long const oldPid = moduleNamed(before, "answer")["pid"];
    long long const neighbourPid = moduleNamed(before, "neighbour")["pid"];

    CtlRun const run = runCtl({"restart", "answer"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "restarted module answer\n");
    EXPECT_EQ(run.err, "");

    json const after = ctlJson({"status"});
    json const answer = moduleNamed(after, "answer");
    json const neighbour = moduleNamed(after, "neighbour");
    long long const newPid = answer["pid"];
    EXPECT_NE(newPid, oldPid);
    EXPECT_EQ(answer["state"], "running");
    EXPECT_EQ(answer["restarts"], 1);
    EXPECT_EQ(answer["clients"], 1);
    EXPECT_EQ(neighbour["pid"], neighbourPid);
    EXPECT_EQ(neighbour["restarts"], 0);
    std::map<std::string, long long> const children = childPids(*host, {"answer", "neighbour"});
    EXPECT_EQ(children.at("answer"), newPid);
    EXPECT_EQ(children.at("neighbour"), neighbourPid);

    // The attached nc stays and meets the new program.
    std::string const starting = "starting module \"answer\", childpid=" + std::to_string(newPid) + "\n";
    ASSERT_TRUE(nc.waitFor(starting)) << nc.output();
    nc.send("after the restart\n");
    EXPECT_TRUE(nc.waitFor("got <after the restart>\r\n")) << nc.output();
}

TEST(Nxactl, FollowPrintsTheOutputUnchangedUntilTermOrIntAndThenUnsubscribes) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"ticker", kTicking}});
    Background first(ctlCommand({"follow", "ticker"}));
    Background second(ctlCommand({"follow", "ticker"}));
    // Whole lines, unchanged: the byte 0xff and a bare line feed.
    ASSERT_TRUE(first.waitFor(" \377\ntick ")) << first.output() << describe(*host);
    ASSERT_TRUE(second.waitFor(" \377\ntick ")) << second.output();
    EXPECT_EQ(first.output().find("\r"), std::string::npos) << first.output();
    EXPECT_EQ(first.output().find("nxactl"), std::string::npos) << first.output();

    // Each run is a subscriber of its own name.
    std::set<std::string> const expected = {"nxactl-" + std::to_string(first.pid()),
                                            "nxactl-" + std::to_string(second.pid())};
    std::set<std::string> subscribers;
    for (json const& c : consumersOfKind(ctlJson({"clients", "ticker"}), "bus")) subscribers.insert(c["id"]);
    EXPECT_EQ(subscribers, expected);

    first.signal(SIGTERM);
    EXPECT_EQ(first.wait(), 0) << first.output();
    std::string const gone = "nxactl-" + std::to_string(second.pid());
    json clients;
    EXPECT_TRUE(nxatest::waitUntil(
        [&] {
            clients = ctlJson({"clients", "ticker"});
            std::vector<json> const bus = consumersOfKind(clients, "bus");
            return bus.size() == 1 && bus[0]["id"] == gone;
        },
        kPatience))
        << clients;
    // The other one goes on.
    std::size_t const seen = second.output().size();
    EXPECT_TRUE(nxatest::waitUntil([&] { return second.output().find("tick ", seen) != std::string::npos; },
                                   kPatience));

    second.signal(SIGINT);
    EXPECT_EQ(second.wait(), 0) << second.output();
    EXPECT_TRUE(nxatest::waitUntil(
        [&] {
            clients = ctlJson({"clients", "ticker"});
            return consumersOfKind(clients, "bus").empty();
        },
        kPatience))
        << clients;
    EXPECT_EQ(moduleNamed(ctlJson({"status"}), "ticker")["subscribers"], 0);
}

TEST(Nxactl, RepliesWithAnotherIdFromAnotherSenderOrOfAnotherKindAreIgnored) {
    NXA_REQUIRE_SANDBOX();
    // The test plays the host "FakeHost", seeing each request with its sender.
    BusSubscriber fake("FakeHost", "%P %p");
    Background ctl(ctlCommand({"--bus-name", "FakeHost", "--timeout", "30", "status"}));
    ASSERT_TRUE(fake.waitFor("\"command\":\"status\"")) << fake.output();
    std::string request;
    for (std::string const& line : linesOf(fake.output())) {
        if (line.find("\"command\"") != std::string::npos) request = line;
    }
    std::string const sender = "nxactl-" + std::to_string(ctl.pid());
    EXPECT_NE(request.find("vlp-sender:" + sender), std::string::npos) << request;
    EXPECT_NE(request.find("vlp-kind:64"), std::string::npos) << request;
    json const asked = json::parse(request.substr(request.find('{')), nullptr, false);
    ASSERT_TRUE(asked.is_object()) << request;
    ASSERT_TRUE(asked.contains("id")) << request;
    json const id = asked["id"];

    auto answer = [&id](std::string const& name, json const& withId) {
        json body{{"ok", true}, {"modules", json::array({json{{"name", name}, {"state", "running"}}})}};
        if (!withId.is_null()) body["id"] = withId;
        return body.dump();
    };
    publishSystem(sender, "FakeHost", 65, answer("wrong-id", "not-" + id.dump()));
    publishSystem(sender, "FakeHost", 65, answer("no-id", nullptr));
    publishSystem(sender, "Impostor", 65, answer("wrong-sender", id));
    publishSystem(sender, "FakeHost", 64, answer("wrong-kind", id));
    publishSystem(sender, "FakeHost", 65, "not json");
    publishSystem(sender, "FakeHost", 65, answer("right", id));
    ASSERT_EQ(ctl.wait(), 0) << ctl.output();
    std::vector<std::string> const lines = linesOf(ctl.output());
    ASSERT_EQ(lines.size(), 2u) << ctl.output();
    // What the answer leaves out shows as "-"; a running program's uptime as 0s.
    EXPECT_EQ(wordsOf(lines[1]),
              (std::vector<std::string>{"right", "-", "running", "-", "0s", "-", "-", "-", "-", "-", "-"}))
        << ctl.output();
}

TEST(Nxactl, BusNameChoosesTheHostAsked) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"echo", kAnswering}}, {"--bus-name", "OtherHost"});
    json const modules = ctlJson({"--bus-name", "OtherHost", "status"});
    ASSERT_EQ(modules.size(), 1u) << modules;
    EXPECT_EQ(modules[0]["name"], "echo");
    CtlRun const plain = runCtl({"--timeout", "1", "status"});
    EXPECT_EQ(plain.status, 1);
    EXPECT_EQ(plain.err, "nxactl: no answer from NXAHost on the bus within 1 s (is nxahost running?)\n");
}

TEST(Nxactl, MalformedControlMessagesGetNoReplyAndChangeNothing) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"echo", kAnswering}});
    Background nc(ncCommand(20100));
    ASSERT_TRUE(nc.waitFor("ready\r\n")) << nc.output();
    long long const pid = childPids(*host, {"echo"}).at("echo");
    BusSubscriber prober("prober");
    for (std::string const text :
         {"not json", "{\"id\":\"m1\"}", "{\"command\":\"frobnicate\",\"id\":\"m2\"}",
          "{\"command\":5,\"id\":\"m3\"}", "[\"restart\",\"echo\"]", "{\"command\":\"restart\"", ""}) {
        publishSystem("NXAHost", "prober", 64, text);
    }
    publishSystem("NXAHost", "prober", 64, "{\"command\":\"status\",\"id\":\"probe-1\"}");
    ASSERT_TRUE(prober.waitFor("probe-1")) << prober.output() << describe(*host);

    std::vector<std::string> replies;
    for (std::string const& line : linesOf(prober.output())) {
        if (line != "subscriber-probe") replies.push_back(line);
    }
    ASSERT_EQ(replies.size(), 1u) << prober.output();
    json const reply = json::parse(replies[0], nullptr, false);
    ASSERT_TRUE(reply.is_object()) << replies[0];
    EXPECT_EQ(reply["id"], "probe-1");
    EXPECT_EQ(reply["ok"], true);
    json const echo = moduleNamed(reply["modules"], "echo");
    EXPECT_EQ(echo["pid"], pid);
    EXPECT_EQ(echo["restarts"], 0);
    EXPECT_EQ(echo["clients"], 1);
    EXPECT_EQ(childPids(*host, {"echo"}).at("echo"), pid);
    EXPECT_TRUE(host->running());
}

TEST(Nxactl, DeeplyNestedRequestsAndIdsThatAreNoTextOrNumberGetNoReplyAndCostNoMemory) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"echo", kAnswering}}, {}, {kNoAllocatorQuarantine});
    BusSubscriber prober("prober");
    publishSystem("NXAHost", "prober", 64, "{\"command\":\"status\",\"id\":\"warm-up\"}");
    ASSERT_TRUE(prober.waitFor("warm-up")) << prober.output() << describe(*host);
    long const before = residentKiB(host->pid());
    // 30,000 levels fit the host's 64 KiB message bound.
    std::string const deep = "{\"command\":\"status\",\"id\":\"deep\",\"x\":" + std::string(30000, '[') +
                             std::string(30000, ']') + "}";
    ASSERT_LT(deep.size(), 64u * 1024u);
    publishSystem("NXAHost", "prober", 64, deep);
    for (std::string const id : {"{\"a\":1}", "[1]", "null", "true"})
        publishSystem("NXAHost", "prober", 64, "{\"command\":\"status\",\"id\":" + id + "}");
    // Nested just within the bound: an ordinary request.
    std::string const nested = "{\"command\":\"status\",\"id\":\"nested\",\"x\":" + std::string(31, '[') +
                               std::string(31, ']') + "}";
    publishSystem("NXAHost", "prober", 64, nested);
    ASSERT_TRUE(prober.waitFor("\"id\":\"nested\"")) << describe(*host);

    std::vector<std::string> replies;
    for (std::string const& line : linesOf(prober.output())) {
        if (line != "subscriber-probe") replies.push_back(json::parse(line, nullptr, false).value("id", "?"));
    }
    EXPECT_EQ(replies, (std::vector<std::string>{"warm-up", "nested"})) << prober.output();
    long const after = residentKiB(host->pid());
    if (!kSanitizedBuild) {
        EXPECT_LT(after - before, 512) << "resident memory went from " << before << " to " << after << " KiB";
    }
    EXPECT_TRUE(host->running());
}

TEST(Nxactl, ASubscriberWhoseNameIsNotUtf8LeavesTheControlsWorking) {
    NXA_REQUIRE_SANDBOX();
    auto host = startHost({{"ticker", kTicking}});
    // "%FF" on the wire is the one-byte name 0xff, which no JSON string can hold.
    BusSubscriber odd("%FF");
    bool const subscribed = nxatest::waitUntil(
        [&] {
            publishSystem("NXAModule_ticker", "%FF", 4, "71-NXAStartOutput");
            return odd.waitFor("tick", 2s);
        },
        kPatience);
    ASSERT_TRUE(subscribed) << odd.output() << describe(*host);

    // The host answers with the name's byte replaced, and serves on.
    json const clients = ctlJson({"clients", "ticker"});
    std::vector<json> const bus = consumersOfKind(clients, "bus");
    ASSERT_EQ(bus.size(), 1u) << clients << describe(*host);
    EXPECT_EQ(bus[0]["id"], "\xef\xbf\xbd");
    EXPECT_EQ(moduleNamed(ctlJson({"status"}), "ticker")["subscribers"], 1);
    EXPECT_TRUE(host->running()) << describe(*host);
}

}  // namespace
}  // namespace e2e
