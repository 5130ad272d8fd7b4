#include "clients.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "hex.h"
#include "shell.h"

namespace e2e {

namespace {

std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace

std::string ncCommand(unsigned port) {
    return "exec nc 127.0.0.1 " + std::to_string(port);
}

std::string socatCommand(unsigned port) {
    return "exec socat - TCP:127.0.0.1:" + std::to_string(port);
}

bool listening(unsigned port) {
    return nxatest::shell("nc -z 127.0.0.1 " + std::to_string(port)).status == 0;
}

RawClient::RawClient(unsigned port, int receiveBuffer) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "cannot connect to port " << port << ": " << std::strerror(errno);
    }
}

RawClient::~RawClient() {
    if (fd_ >= 0) ::close(fd_);
}

bool RawClient::receive(std::size_t count, milliseconds timeout) {
    std::size_t got = 0;
    return nxatest::waitUntil(
        [&] {
            pollfd p{fd_, POLLIN, 0};
            if (::poll(&p, 1, 0) <= 0) return false;
            char buf[4096];
            ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
            if (n > 0) got += static_cast<std::size_t>(n);
            return got >= count;
        },
        timeout);
}

bool RawClient::awaitAnswer(milliseconds timeout) const {
    pollfd p{fd_, POLLIN, 0};
    return ::poll(&p, 1, static_cast<int>(timeout.count())) == 1;
}

void RawClient::reset() {
    linger const abortive{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &abortive, sizeof abortive);
    ::close(fd_);
    fd_ = -1;
}

int RawClient::unread() const {
    int count = -1;
    ::ioctl(fd_, FIONREAD, &count);
    return count;
}

void publishSystem(std::string const& to, std::string const& sender, int kind, std::string const& text) {
    std::string const command = "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t " + quoted("vlpbus/" + to) +
                                " -m " + quoted(text) + " -D publish user-property vlp-sender " +
                                quoted(sender) + " -D publish user-property vlp-type system" +
                                " -D publish user-property vlp-kind " + std::to_string(kind);
    nxatest::ShellResult const r = nxatest::shell(command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.output;
}

bool textThroughHost(Background const& client, std::string const& text, std::string const& host) {
    return nxatest::waitUntil(
        [&] {
            publishSystem(host, "tester", 34, text);
            return client.waitFor(text, milliseconds(2000));
        },
        kPatience);
}

namespace {

std::string subscriberCommand(std::vector<std::string> const& names, std::string const& format) {
    std::string command = "exec mosquitto_sub -V mqttv5 -h 127.0.0.1 -p 20010";
    for (std::string const& name : names) command += " -t " + quoted("vlpbus/" + name);
    return command + " -F " + quoted(format);
}

}  // namespace

BusSubscriber::BusSubscriber(std::string const& name, std::string const& format)
    : BusSubscriber(std::vector<std::string>{name}, format) {}

BusSubscriber::BusSubscriber(std::vector<std::string> const& names, std::string const& format)
    : sub_(subscriberCommand(names, format)) {
    // The subscription is in place once a probe published to it comes back,
    // as it is or, with a format that shows the payload in hex, in hex.
    auto probed = [&] {
        std::string const seen = output();
        return seen.find(kSubscriberProbe) != std::string::npos ||
               seen.find(nxatest::toHex(kSubscriberProbe)) != std::string::npos;
    };
    bool const ready = nxatest::waitUntil(
        [&] {
            nxatest::shell("mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t " +
                           quoted("vlpbus/" + names.at(0)) + " -m " + kSubscriberProbe);
            return nxatest::waitUntil(probed, milliseconds(300));
        },
        kPatience);
    EXPECT_TRUE(ready) << "mosquitto_sub did not subscribe: " << output();
}

std::vector<BusMessage> parseMessages(std::string const& output) {
    std::vector<BusMessage> messages;
    std::size_t start = 0;
    for (std::size_t end; (end = output.find('\n', start)) != std::string::npos; start = end + 1) {
        std::string const line = output.substr(start, end - start);
        std::size_t const first = line.find(' ');
        if (first == std::string::npos) continue;
        std::size_t const second = line.find(' ', first + 1);
        BusMessage m;
        m.topic = line.substr(0, first);
        m.payload = nxatest::fromHex(
            line.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1));
        if (second != std::string::npos) m.properties = line.substr(second + 1);
        messages.push_back(m);
    }
    return messages;
}

std::string listing(std::vector<BusMessage> const& messages) {
    std::string text;
    for (BusMessage const& m : messages)
        text += m.text() + (m.payload.empty() || m.payload.back() != '\n' ? "\n" : "");
    return text;
}

std::size_t firstOf(std::vector<BusMessage> const& messages, std::string const& topic,
                    std::string const& text, std::string const& property) {
    for (std::size_t i = 0; i < messages.size(); ++i) {
        BusMessage const& m = messages[i];
        if (m.topic == topic && m.payload.find(text) != std::string::npos &&
            m.properties.find(property) != std::string::npos)
            return i;
    }
    return std::string::npos;
}

}  // namespace e2e
