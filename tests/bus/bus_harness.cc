#include "bus_harness.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

#include "sandbox.h"
#include "shell.h"
#include "vlplatform/fd_set.h"

namespace bustest {

namespace {

// mosquitto_sub on `topic`: -d shows when the broker has acknowledged the
// subscription; stdbuf makes each line visible at once.
std::string subscriberCommand(std::string const& topic, std::string const& format, int count) {
    return "exec stdbuf -oL mosquitto_sub -d -V mqttv5 -p " + std::to_string(nxatest::kBusPort) + " -t " +
           shellQuote(topic) + " -F " + shellQuote(format) + " -C " + std::to_string(count) + " -W 30";
}

}  // namespace

Subscriber::Subscriber(std::string const& topic, std::string const& format, int count)
    : topic_(topic), sub_(subscriberCommand(topic, format, count)) {
    awaitSubscription();
}

void Subscriber::awaitSubscription() {
    ASSERT_TRUE(sub_.waitFor("Subscribed (mid:", std::chrono::seconds(10)))
        << "mosquitto_sub did not subscribe: " << sub_.output();
    ready_ = true;
}

std::vector<std::string> Subscriber::lines(milliseconds timeout) {
    bool const ended = sub_.pid() < 0 || sub_.wait(timeout) >= 0;
    EXPECT_TRUE(ended) << "mosquitto_sub did not end: " << sub_.output();
    return messageLines();
}

std::vector<std::string> Subscriber::messageLines() const {
    std::vector<std::string> result;
    std::istringstream in(sub_.output());
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

std::unique_ptr<VLPBusClient> connectedClient(std::string const& name) {
    auto client = std::make_unique<VLPBusClient>("", nxatest::kBusPort, name);
    client->setup();
    EXPECT_TRUE(client->isConnected()) << "client " << name << " did not connect";
    return client;
}

}  // namespace bustest
