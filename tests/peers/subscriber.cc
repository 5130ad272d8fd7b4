#include "subscriber.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "sandbox.h"
#include "shell.h"

namespace peerstest {

namespace {

std::string hexToBytes(std::string const& hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return out;
}

// One printed line "<topic>|<prop> <prop>...|<hex payload>".
bool parseLine(std::string const& line, std::string const& topic, Received& out) {
    if (line.compare(0, topic.size() + 1, topic + "|") != 0) return false;
    std::size_t bar = line.rfind('|');
    std::istringstream props(line.substr(topic.size() + 1, bar - topic.size() - 1));
    std::string prop;
    while (props >> prop) out.properties.insert(prop);
    out.payload = hexToBytes(line.substr(bar + 1));
    return true;
}

}  // namespace

Subscriber::Subscriber(std::string const& id) : id_(id) {
    char name[] = "/tmp/nxatest-sub.XXXXXX";
    int fd = mkstemp(name);
    if (fd < 0) throw std::runtime_error("cannot create the subscriber's output file");
    output_ = name;
    std::string port = std::to_string(nxatest::kBusPort);
    std::string topic = "vlpbus/" + id, probe = "probe/" + id;
    pid_ = fork();
    if (pid_ == 0) {
        dup2(fd, 1);
        dup2(fd, 2);
        execlp("mosquitto_sub", "mosquitto_sub", "-V", "mqttv5", "-h", "127.0.0.1", "-p", port.c_str(), "-t",
               topic.c_str(), "-t", probe.c_str(), "-F", "%t|%P|%x", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fd);
    if (pid_ < 0) throw std::runtime_error("cannot fork mosquitto_sub");
    // Subscribed once a probe sent to it comes back out.
    std::string pub = "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p " + port + " -t " + probe + " -m ready";
    bool ready = nxatest::waitUntil(
        [&] {
            nxatest::shell(pub);
            return nxatest::waitUntil(
                [&] { return nxatest::readFile(output_).find(probe + "|") != std::string::npos; },
                std::chrono::milliseconds(200));
        },
        std::chrono::seconds(20));
    if (!ready) throw std::runtime_error("mosquitto_sub did not subscribe: " + nxatest::readFile(output_));
}

Subscriber::~Subscriber() {
    leave();
    unlink(output_.c_str());
}

std::vector<Received> Subscriber::messages() const {
    std::vector<Received> out;
    std::string text = nxatest::readFile(output_);
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
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

}  // namespace peerstest
