#include "bus_harness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "sandbox.h"
#include "shell.h"
#include "vlplatform/fd_set.h"

extern char** environ;

namespace bustest {

namespace {

// A fresh, empty file for a child's output; its path.
std::string outputFile() {
    char path[] = "/tmp/bus-sub-XXXXXX";
    int fd = mkstemp(path);
    if (fd >= 0) close(fd);
    return path;
}

pid_t spawn(std::vector<std::string> const& args, std::string const& output) {
    std::vector<char*> argv;
    for (auto const& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_APPEND, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

bool exited(pid_t pid) {
    int status;
    return waitpid(pid, &status, WNOHANG) == pid;
}

}  // namespace

Subscriber::Subscriber(std::string const& topic, std::string const& format, int count)
    : topic_(topic), output_(outputFile()) {
    start(format, count);
}

void Subscriber::start(std::string const& format, int count) {
    // -d shows when the broker has acknowledged the subscription; stdbuf makes
    // each line visible at once.
    pid_ = spawn(
        {"stdbuf", "-oL", "mosquitto_sub", "-d", "-V", "mqttv5", "-p", std::to_string(nxatest::kBusPort),
         "-t", topic_, "-F", format, "-C", std::to_string(count), "-W", "30"},
        output_);
    ASSERT_GT(pid_, 0) << "cannot start mosquitto_sub";
    bool subscribed = nxatest::waitUntil(
        [&] { return nxatest::readFile(output_).find("Subscribed (mid:") != std::string::npos; });
    ASSERT_TRUE(subscribed) << "mosquitto_sub did not subscribe: " << nxatest::readFile(output_);
    ready_ = true;
}

Subscriber::~Subscriber() {
    if (pid_ > 0 && !exited(pid_)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    unlink(output_.c_str());
}

std::vector<std::string> Subscriber::lines(milliseconds timeout) {
    if (pid_ > 0 && nxatest::waitUntil([&] { return exited(pid_); }, timeout)) pid_ = -1;
    EXPECT_EQ(pid_, -1) << "mosquitto_sub did not end: " << nxatest::readFile(output_);
    return messageLines();
}

std::vector<std::string> Subscriber::messageLines() const {
    std::vector<std::string> result;
    std::istringstream in(nxatest::readFile(output_));
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, topic_.size() + 1, topic_ + "|") == 0) result.push_back(line);
    }
    return result;
}

int publish(std::string const& arguments) {
    nxatest::ShellResult r = nxatest::shell("mosquitto_pub -V mqttv5 -q 1 -p " +
                                            std::to_string(nxatest::kBusPort) + " " + arguments);
    if (!r.output.empty()) std::cerr << "mosquitto_pub: " << r.output;
    return r.status;
}

std::string shellQuote(std::string const& text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

std::string userProperties(std::vector<std::pair<std::string, std::string>> const& properties) {
    std::string args;
    for (auto const& p : properties) {
        args += " -D publish user-property " + shellQuote(p.first) + " " + shellQuote(p.second);
    }
    return args;
}

bool pumpUntil(VLPBusClient& client, std::function<bool()> const& done, milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        FdSet rd, wr;
        rd.add(client.fd());
        int n = waitFds(rd, wr, 50);
        if (n > 0 && rd.isSet(client.fd()) && !client.read()) return done();
    }
    return true;
}

std::unique_ptr<MessageBase> awaitMessage(VLPBusClient& client, milliseconds timeout) {
    std::unique_ptr<MessageBase> msg = client.getMessage();
    pumpUntil(
        client,
        [&] {
            if (!msg) msg = client.getMessage();
            return msg != nullptr;
        },
        timeout);
    return msg;
}

std::string hex(std::string const& text) {
    static char const digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : text) {
        out += digits[c >> 4];
        out += digits[c & 0xf];
    }
    return out;
}

std::unique_ptr<VLPBusClient> connectedClient(std::string const& name) {
    auto client = std::make_unique<VLPBusClient>("", nxatest::kBusPort, name);
    client->setup();
    EXPECT_TRUE(client->isConnected()) << "client " << name << " did not connect";
    return client;
}

}  // namespace bustest
