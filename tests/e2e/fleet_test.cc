// The fleet: devices whose bus brokers are bridged to a central broker with
// the profile share/nxa/bridge.conf.example, its placeholders filled in and
// nothing else changed.
//
// The centre is this test's sandbox: a central broker on port 1883 and a
// mosquitto_sub watching everything under devices/. Each device is a sandbox
// of its own started from here (tests/sandbox/nxa-sandbox again: its own
// /var/opt/velmora, /tmp/nxa, network and process ids), joined to the centre
// by a veth pair, with its own broker on 127.0.0.1:20010 (the sandbox's broker
// settings plus the profile in a conf.d folder, as on a device) and its own
// nxahost running the module "clock". Everything a device runs is entered
// into its namespaces with nsenter.
//
// What must not happen is shown by order, never by waiting: a message that
// travels the same connections after the one that must not cross has arrived,
// and the first has not.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "clients.h"
#include "host_process.h"
#include "packages.h"
#include "sandbox.h"
#include "sandbox_processes.h"
#include "shell.h"

namespace e2e {
namespace {

using namespace std::chrono_literals;

// The central broker: every address of the centre, port 1883.
constexpr unsigned kCentralPort = 1883;
constexpr char kCentralConf[] =
    "listener 1883\n"
    "allow_anonymous true\n"
    "persistence false\n"
    "set_tcp_nodelay true\n"
    "user root\n"
    "log_dest stderr\n"
    "log_type error\n"
    "log_type warning\n"
    "log_type notice\n";

// The names the profile bridges.
constexpr char kViewer[] = "fleet-viewer";
constexpr char kOperator[] = "fleet-operator";
constexpr char kControlsLine[] = "#topic NXAHost in 0 vlpbus/ devices/@DEVICE@/vlpbus/\n";

constexpr char kStart[] = "71-NXAStartOutput";
constexpr char kStop[] = "72-NXAStopOutput";

std::string profilePath() {
    return nxatest::sourceDir() + "/share/nxa/bridge.conf.example";
}

std::string sandboxScript() {
    return nxatest::sourceDir() + "/tests/sandbox/nxa-sandbox";
}

std::string replaceAll(std::string text, std::string const& what, std::string const& with) {
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
    return text;
}

int countOf(std::string const& text, std::string const& part) {
    int n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

constexpr std::size_t npos = std::string::npos;

std::string busTopic(std::string const& device, std::string const& name) {
    return "devices/" + device + "/vlpbus/" + name;
}

// The ticker every device runs as its module "clock".
std::string tickerBody(std::string const& device) {
    return "i=0; while :; do i=$((i+1)); printf 'device " + device + " tick %d\\n' $i; sleep 0.1; done";
}

// A system message published with mosquitto_pub (MQTT v5, QoS 1: the broker
// has taken it when the command returns) on `topic` of the broker at `port`;
// the command starts with `prefix` (to run it on a device).
void publishVia(std::string const& prefix, unsigned port, std::string const& topic, std::string const& sender,
                int kind, std::string const& text) {
    std::string const command = "mosquitto_pub -V mqttv5 -q 1 -h 127.0.0.1 -p " + std::to_string(port) +
                                " -t " + quoted(topic) + " -m " + quoted(text) +
                                " -D publish user-property vlp-sender " + quoted(sender) +
                                " -D publish user-property vlp-type system" +
                                " -D publish user-property vlp-kind " + std::to_string(kind);
    nxatest::ShellResult const r = nxatest::shell(prefix + command);
    ASSERT_EQ(r.status, 0) << prefix << command << ": " << r.output;
}

// The central broker and a subscriber to everything under devices/, whose
// messages come in the order the broker forwarded them.
class Centre {
public:
    void start() {
        std::string const conf = scratchDir() + "/central.conf";
        nxatest::writeFile(conf, kCentralConf);
        broker_ = std::make_unique<Background>("exec mosquitto -c " + quoted(conf));
        ASSERT_TRUE(
            nxatest::waitUntil([] { return nxatest::shell("nc -z 127.0.0.1 1883").status == 0; }, kPatience))
            << broker_->output();
        watch_ = std::make_unique<Background>(
            "exec mosquitto_sub -V mqttv5 -h 127.0.0.1 -p 1883 -t 'devices/#' -F '%t %x %P'");
        bool const ready = nxatest::waitUntil(
            [&] {
                nxatest::shell(
                    "mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 1883 -t devices/probe -m centre-probe");
                return nxatest::waitUntil([&] { return !on("devices/probe").empty(); }, 300ms);
            },
            kPatience);
        ASSERT_TRUE(ready) << "the centre's subscriber did not subscribe: " << watch_->output();
    }
    void stop() {
        watch_.reset();
        broker_.reset();
    }

    // A system message to `topic` of the central broker, as `sender`.
    void publish(std::string const& topic, std::string const& sender, int kind,
                 std::string const& text) const {
        publishVia("", kCentralPort, topic, sender, kind, text);
    }
    std::vector<BusMessage> messages() const { return parseMessages(watch_->output()); }
    // The messages seen on `topic`.
    std::vector<BusMessage> on(std::string const& topic) const {
        std::vector<BusMessage> found;
        for (BusMessage const& m : messages())
            if (m.topic == topic) found.push_back(m);
        return found;
    }
    // How many messages on `topic` hold `text`.
    int count(std::string const& topic, std::string const& text) const {
        int n = 0;
        for (BusMessage const& m : on(topic)) n += m.payload.find(text) != std::string::npos;
        return n;
    }
    std::string describe() const {
        return "--- the centre saw:\n" + listing(messages()) + "--- central broker:\n" + broker_->output();
    }

private:
    std::unique_ptr<Background> broker_;
    std::unique_ptr<Background> watch_;
};

// One device: a sandbox of its own, a veth link to the centre, its broker
// bridged to the central broker with `profile`, and nxahost running "clock".
class Device {
public:
    Device(std::string id, int subnet) : id_(std::move(id)), subnet_(subnet) {}
    ~Device() {
        // The programs first, then the sandbox, whose end ends the rest.
        host_.reset();
        broker_.reset();
        holder_.reset();
    }

    std::string const& id() const { return id_; }
    std::string dir() const { return scratchDir() + "/device-" + id_; }

    // A command prefix that runs a shell command in the device's mount,
    // network and process-id namespaces.
    std::string inside(std::string const& command) const {
        return "nsenter -t " + std::to_string(namespaces_) + " -m -n -p -- sh -c " + quoted(command);
    }
    nxatest::ShellResult run(std::string const& command) const { return nxatest::shell(inside(command)); }
    // A system message to a participant of the device's own bus, published there.
    void publishHere(std::string const& to, std::string const& sender, int kind,
                     std::string const& text) const {
        publishVia("nsenter -t " + std::to_string(namespaces_) + " -m -n -p -- ", nxatest::kBusPort,
                   "vlpbus/" + to, sender, kind, text);
    }

    void start(std::string const& profile, Centre const& centre) {
        ASSERT_EQ(
            nxatest::shell("mkdir -p " + quoted(dir() + "/conf.d") + " " + quoted(dir() + "/src")).status, 0);
        // The sandbox: a shell that waits; "ready" once its mounts are made.
        holder_ = std::make_unique<Background>("exec " + quoted(sandboxScript()) +
                                               " -- sh -c 'echo ready; exec sleep 1000000'");
        ASSERT_TRUE(holder_->waitFor("ready\n")) << holder_->output();
        // The holder is unshare; its child is the first process of the device's
        // namespaces.
        std::vector<ProcessInfo> const children = childrenOf(holder_->pid());
        ASSERT_EQ(children.size(), 1u) << "the sandbox of device " << id_ << " has no first process";
        namespaces_ = children[0].pid;

        std::string const net = "10.78." + std::to_string(subnet_) + ".";
        std::string const link = "fleet" + id_;
        nxatest::ShellResult const linked = nxatest::shell(
            "ip link add " + link + " type veth peer name eth0 netns " + std::to_string(namespaces_) +
            " && ip addr add " + net + "1/24 dev " + link + " && ip link set " + link + " up && " +
            inside("ip addr add " + net + "2/24 dev eth0 && ip link set eth0 up"));
        ASSERT_EQ(linked.status, 0) << linked.output;
        ASSERT_TRUE(nxatest::waitUntil([&] { return run("nc -z " + net + "1 1883").status == 0; }, kPatience))
            << "device " << id_ << " does not reach the central broker";

        // The broker as on a device: its settings, and conf.d with the profile.
        std::string const settings =
            nxatest::readFile(nxatest::sourceDir() + "/tests/sandbox/mosquitto.conf");
        ASSERT_FALSE(settings.empty());
        nxatest::writeFile(dir() + "/mosquitto.conf",
                           settings + "log_type notice\ninclude_dir " + dir() + "/conf.d\n");
        nxatest::writeFile(dir() + "/conf.d/fleet.conf",
                           replaceAll(replaceAll(profile, "@DEVICE@", id_), "@CENTRAL@", net + "1:1883"));
        broker_ = std::make_unique<Background>(
            "exec " + inside("exec mosquitto -c " + quoted(dir() + "/mosquitto.conf")));
        // The bridge is up once a message to a name it carries out reaches the
        // centre. It subscribed at the centre before it forwarded anything, so
        // the names it carries in are then subscribed as well.
        std::string const probe = "probe from " + id_;
        bool const bridged = nxatest::waitUntil(
            [&] {
                run("mosquitto_pub -V mqttv5 -h 127.0.0.1 -p 20010 -t vlpbus/" + std::string(kViewer) +
                    " -m " + quoted(probe));
                return nxatest::waitUntil(
                    [&] {
                        for (BusMessage const& m : centre.on(busTopic(id_, kViewer)))
                            if (m.payload == probe) return true;
                        return false;
                    },
                    300ms);
            },
            kPatience);
        ASSERT_TRUE(bridged) << "the bridge of device " << id_ << " did not come up\n"
                             << describe() << centre.describe();

        std::string const module = writeModule(dir() + "/src", "clock", "noarch", tickerBody(id_));
        nxatest::ShellResult const packed = run(quoted(packBinary()) + " " + kPackage + " " + quoted(module));
        ASSERT_EQ(packed.status, 0) << packed.output;
        host_ = std::make_unique<Background>("exec " + inside("exec " + quoted(hostBinary()) + " clock"));
        ASSERT_TRUE(host_->waitFor(runsOnPortLine("clock", 20100) + "\n")) << describe();
    }

    std::string describe() const {
        std::string text = "--- device " + id_ + ", its broker:\n" + (broker_ ? broker_->output() : "");
        if (host_) text += "--- device " + id_ + ", its nxahost:\n" + host_->output();
        return text;
    }

private:
    std::string id_;
    int subnet_;
    pid_t namespaces_ = -1;
    std::unique_ptr<Background> holder_;
    std::unique_ptr<Background> broker_;
    std::unique_ptr<Background> host_;
};

class Fleet : public ::testing::Test {
protected:
    void SetUp() override {
        NXA_REQUIRE_SANDBOX();
        profile_ = nxatest::readFile(profilePath());
        ASSERT_FALSE(profile_.empty()) << profilePath();
        ASSERT_NO_FATAL_FAILURE(centre_.start());
    }
    void TearDown() override {
        devices_.clear();
        centre_.stop();
        EXPECT_TRUE(nxatest::waitUntil([] { return strayProcesses().empty(); }, kPatience))
            << strayProcesses();
    }

    // Starts device `id` with `profile`; it is then devices_.back().
    void addDevice(std::string const& id, std::string const& profile) {
        devices_.push_back(std::make_unique<Device>(id, static_cast<int>(devices_.size()) + 1));
        devices_.back()->start(profile, centre_);
    }

    std::string describe() const {
        std::string text = centre_.describe();
        for (auto const& d : devices_) text += d->describe();
        return text;
    }

    // Asks `device`'s module clock, from the centre, for its output as
    // `name` (again until some arrives: the module may not read its bus yet),
    // and waits until `times` messages of it have arrived there.
    bool startFromCentre(Device const& device, std::string const& name, int times = 1) const {
        std::string const topic = busTopic(device.id(), name);
        std::string const tick = "device " + device.id() + " tick";
        bool const started = nxatest::waitUntil(
            [&] {
                centre_.publish(busTopic(device.id(), "NXAModule_clock"), name, 4, kStart);
                return nxatest::waitUntil([&] { return centre_.count(topic, tick) > 0; }, 1s);
            },
            kPatience);
        return started && nxatest::waitUntil([&] { return centre_.count(topic, tick) >= times; }, kPatience);
    }

    std::string profile_;
    Centre centre_;
    std::vector<std::unique_ptr<Device>> devices_;
};

TEST_F(Fleet, TheCentreStartsAndStopsTheOutputOfOneChosenDeviceAndReadsThatDeviceOnly) {
    ASSERT_NO_FATAL_FAILURE(addDevice("A", profile_));
    Device& a = *devices_.back();
    ASSERT_NO_FATAL_FAILURE(addDevice("B", profile_));
    Device& b = *devices_.back();

    // Everything on device A's bus, in the order A's broker forwards it: all
    // the centre sends A comes this way, through A's one bridge connection.
    Background busA("exec " + a.inside("exec mosquitto_sub -V mqttv5 -p 20010 -t 'vlpbus/#' -F '%t %x %P'"));
    // A viewer on device A itself, a name the profile does not carry. Once it
    // gets A's output, A's module reads its requests and busA is subscribed.
    std::string const localViewer = "vlpbus/local-viewer";
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            a.publishHere("NXAModule_clock", "local-viewer", 4, kStart);
            return nxatest::waitUntil(
                [&] { return firstOf(parseMessages(busA.output()), localViewer, "device A tick") != npos; },
                300ms);
        },
        kPatience))
        << busA.output() << describe();

    // The centre starts device B's clock for its viewer; B's lines arrive with
    // the module's user properties.
    ASSERT_TRUE(startFromCentre(b, kViewer, 3)) << describe();
    for (BusMessage const& m : centre_.on(busTopic("B", kViewer))) {
        if (m.payload.find("device B tick") == std::string::npos) continue;
        EXPECT_NE(m.properties.find("vlp-sender:NXAModule_clock"), std::string::npos) << m.text();
        EXPECT_NE(m.properties.find("vlp-type:system"), std::string::npos) << m.text();
        EXPECT_NE(m.properties.find("vlp-kind:34"), std::string::npos) << m.text();
    }

    // Then device A's clock for the operator. Had the request to B reached A
    // as well, A's bus would have carried it before this one.
    ASSERT_TRUE(startFromCentre(a, kOperator)) << describe();
    std::vector<BusMessage> const onA = parseMessages(busA.output());
    std::size_t const fromCentre =
        firstOf(onA, "vlpbus/NXAModule_clock", kStart, "vlp-sender:fleet-operator");
    ASSERT_NE(fromCentre, npos) << listing(onA);
    for (BusMessage const& m : onA) {
        EXPECT_EQ(m.properties.find("vlp-sender:fleet-viewer"), std::string::npos)
            << "device B's request reached device A: " << m.text();
    }
    // A's output to its own viewer was on A's bus before the centre asked A
    // for anything, so had A's bridge carried it, the centre would have had it
    // before A's output to the operator. The centre has every line where it
    // asked for it, and nowhere else.
    for (BusMessage const& m : centre_.messages()) {
        EXPECT_EQ(m.topic.find("local-viewer"), std::string::npos) << m.text();
        if (m.payload.find("device A") != std::string::npos) {
            EXPECT_EQ(m.topic, busTopic("A", kOperator))
                << "device A's output where it was not asked for: " << m.text();
        }
        if (m.payload.find("device B") != std::string::npos) {
            EXPECT_EQ(m.topic, busTopic("B", kViewer))
                << "device B's output where it was not asked for: " << m.text();
        }
    }
    for (BusMessage const& m : centre_.on(busTopic("A", kViewer)))
        EXPECT_EQ(m.payload, "probe from A") << "only A's bridge probes go there";

    // Stop B's output for the viewer, then ask for it for the operator. A new
    // subscriber first gets the module's recent output (up to 10 chunks); from
    // then on every subscriber is sent one chunk a turn, and an older one never
    // holds more than the newest. So once the operator has 12 messages, two of
    // them new output, a viewer left subscribed would have been sent new output
    // after the operator's first message.
    centre_.publish(busTopic("B", "NXAModule_clock"), kViewer, 4, kStop);
    ASSERT_TRUE(startFromCentre(b, kOperator, 12)) << describe();
    std::vector<BusMessage> const seen = centre_.messages();
    std::size_t const firstToOperator = firstOf(seen, busTopic("B", kOperator), "device B tick");
    ASSERT_NE(firstToOperator, npos);
    for (std::size_t i = firstToOperator; i < seen.size(); ++i)
        EXPECT_NE(seen[i].topic, busTopic("B", kViewer)) << "output after the stop: " << seen[i].text();
    // A's own viewer still gets A's output: the centre's requests left it alone.
    std::size_t const before = busA.output().size();
    EXPECT_TRUE(nxatest::waitUntil(
        [&] {
            std::vector<BusMessage> const now = parseMessages(busA.output().substr(before));
            return firstOf(now, localViewer, "device A tick") != npos;
        },
        kPatience))
        << busA.output();
}

TEST_F(Fleet, TheHostsControlsAreNotBridgedByDefault) {
    ASSERT_NO_FATAL_FAILURE(addDevice("B", profile_));
    Device& b = *devices_.back();

    // Everything that reaches the host and the module on device B's bus, and
    // a local operator's replies, seen in the order B's broker forwards them.
    Background watch("exec " + b.inside("exec mosquitto_sub -V mqttv5 -p 20010 -t vlpbus/NXAHost "
                                        "-t vlpbus/NXAModule_clock -t vlpbus/local-operator -F '%t %p'"));
    // The host answers a request made on the device.
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            b.publishHere("NXAHost", "local-operator", 64, R"({"command":"status","id":"local"})");
            return nxatest::waitUntil([&] { return countOf(watch.output(), "vlpbus/local-operator {") > 0; },
                                      300ms);
        },
        kPatience))
        << watch.output() << describe();
    EXPECT_NE(watch.output().find(R"("id":"local")"), std::string::npos) << watch.output();

    // The same request from the centre, then a request for the clock's output:
    // both cross the same connections in this order, if at all.
    centre_.publish(busTopic("B", "NXAHost"), kOperator, 64, R"({"command":"status","id":"centre"})");
    ASSERT_TRUE(startFromCentre(b, kOperator)) << describe();
    // The watcher prints what it gets on its own time: the clock's output may
    // reach the centre before the watcher has written the start request.
    std::string const startSeen = std::string("vlpbus/NXAModule_clock ") + kStart;
    EXPECT_TRUE(
        nxatest::waitUntil([&] { return watch.output().find(startSeen) != std::string::npos; }, kPatience))
        << watch.output();
    std::string const reached = watch.output();
    EXPECT_EQ(reached.find(R"("id":"centre")"), std::string::npos)
        << "a request from the centre reached the host:\n"
        << reached;
    // No reply reached the centre, and the local one stayed on the device: it
    // was forwarded before the clock was even asked for.
    for (BusMessage const& m : centre_.messages()) {
        EXPECT_EQ(m.properties.find("vlp-kind:65"), std::string::npos) << m.text();
        EXPECT_EQ(m.topic.find("local-operator"), std::string::npos) << m.text();
    }
}

TEST_F(Fleet, WithTheControlsLineEnabledTheCentreGetsTheHostsReplies) {
    ASSERT_EQ(countOf(profile_, kControlsLine), 1)
        << "the profile should hold the controls line, commented out";
    std::string const enabled = replaceAll(profile_, kControlsLine, kControlsLine + 1);
    ASSERT_NO_FATAL_FAILURE(addDevice("B", enabled));

    std::string const reply = busTopic("B", kOperator);
    auto replied = [&] {
        for (BusMessage const& m : centre_.on(reply))
            if (m.properties.find("vlp-kind:65") != std::string::npos) return true;
        return false;
    };
    ASSERT_TRUE(nxatest::waitUntil(
        [&] {
            centre_.publish(busTopic("B", "NXAHost"), kOperator, 64, R"({"command":"status","id":"centre"})");
            return nxatest::waitUntil(replied, 300ms);
        },
        kPatience))
        << describe();
    for (BusMessage const& m : centre_.on(reply)) {
        if (m.properties.find("vlp-kind:65") == std::string::npos) continue;
        EXPECT_NE(m.properties.find("vlp-sender:NXAHost"), std::string::npos) << m.text();
        EXPECT_NE(m.payload.find(R"("id":"centre")"), std::string::npos) << m.text();
        EXPECT_NE(m.payload.find(R"("ok":true)"), std::string::npos) << m.text();
        EXPECT_NE(m.payload.find(R"("clock")"), std::string::npos) << m.text();
    }
}

}  // namespace
}  // namespace e2e
