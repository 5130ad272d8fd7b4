#include "subscriber.h"

#include <csignal>
#include <sstream>
#include <stdexcept>

#include "hex.h"
#include "sandbox.h"
#include "shell.h"

namespace peerstest {

namespace {

// One printed line "<topic>|<prop> <prop>...|<hex payload>".
bool parseLine(std::string const& line, std::string const& topic, Received& out) {
    if (line.compare(0, topic.size() + 1, topic + "|") != 0) return false;
    std::size_t bar = line.rfind('|');
    std::istringstream props(line.substr(topic.size() + 1, bar - topic.size() - 1));
    std::string prop;
    while (props >> prop) out.properties.insert(prop);
    out.payload = nxatest::fromHex(line.substr(bar + 1));
    return true;
}

// mosquitto_sub on the participant's topic and on a probe topic of its own.
std::string subscriberCommand(std::string const& topic, std::string const& probe) {
    return "exec mosquitto_sub -V mqttv5 -h 127.0.0.1 -p " + std::to_string(nxatest::kBusPort) + " -t '" +
           topic + "' -t '" + probe + "' -F '%t|%P|%x'";
}

}  // namespace

Subscriber::Subscriber(std::string const& id)
    : id_(id), sub_(subscriberCommand("vlpbus/" + id, "probe/" + id)) {
    std::string const probe = "probe/" + id;
    // Subscribed once a probe sent to it comes back out.
    std::string const pub = "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p " + std::to_string(nxatest::kBusPort) +
                            " -t '" + probe + "' -m ready";
    bool const ready = nxatest::waitUntil(
        [&] {
            nxatest::shell(pub);
            return nxatest::waitUntil([&] { return sub_.output().find(probe + "|") != std::string::npos; },
                                      std::chrono::milliseconds(200));
        },
        std::chrono::seconds(20));
    if (!ready) throw std::runtime_error("mosquitto_sub did not subscribe: " + sub_.output());
}

std::vector<Received> Subscriber::messages() const {
    std::vector<Received> out;
    std::string const text = sub_.output();
    // Only whole lines: the last one may still be being written.
    for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        Received r;
        if (parseLine(text.substr(start, end - start), "vlpbus/" + id_, r)) out.push_back(r);
    }
    return out;
}

bool Subscriber::waitFor(std::size_t count, std::chrono::milliseconds timeout) const {
    return nxatest::waitUntil([&] { return messages().size() >= count; }, timeout);
}

void Subscriber::leave() {
    sub_.signal(SIGKILL);
    sub_.wait();
}

}  // namespace peerstest
