#include <nxahost/control_client.h>
#include <nxahost/device.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace nxahost {
namespace {

using json = nlohmann::json;
namespace key = control::key;
// Pause between two connection attempts the broker refused at once.
constexpr std::chrono::milliseconds kConnectPause{100};

std::string ownBusName(std::string const& given) {
    return given.empty() ? "control-" + std::to_string(getpid()) : given;
}

// A request id no other run is likely to use: 64 random bits in hex.
std::string freshRequestId() {
    std::random_device random;
    std::uint64_t const bits = (std::uint64_t{random()} << 32) | random();
    std::ostringstream id;
    id << std::hex << bits;
    return id.str();
}

}  // namespace

ControlClient::ControlClient(Setup setup)
    : setup_(std::move(setup)),
      deadline_(Clock::now() + setup_.timeout),
      bus_("", kBusPort, ownBusName(setup_.ownName)) {}

void ControlClient::connect() {
    bus_.setup();
    while (!bus_.isConnected()) {
        if (Clock::now() + kConnectPause >= deadline_) {
            throw std::runtime_error("cannot reach the bus broker on 127.0.0.1:" + std::to_string(kBusPort) +
                                     " within " + setup_.timeoutText + " s");
        }
        std::this_thread::sleep_for(kConnectPause);
        bus_.connectToServer();
    }
}

json ControlClient::ask(json request) {
    std::string const id = freshRequestId();
    request[key::kId] = id;
    // A name given on the command line need not be UTF-8; JSON text must be.
    send(setup_.host, control::kRequestKind, control::messageText(request));
    while (waitForInput(deadline_)) {
        if (!bus_.read()) throw std::runtime_error("lost the connection to the bus broker");
        while (std::unique_ptr<MessageBase> message = bus_.getMessage()) {
            if (!isAnswerTo(*message, id)) continue;
            auto const& system =
                static_cast<SystemMessage const&>(*static_cast<RouterMessage const&>(*message).message());
            return json::parse(system.text());
        }
    }
    noAnswer();
}

void ControlClient::send(std::string const& to, unsigned char kind, std::string const& text) {
    auto message = std::make_unique<SystemMessage>();
    message->setKind(kind);
    message->setText(text);
    bus_.sendTo(bus_.name(), to, std::move(message));
}

// Waits until the connection has something to read; false once `until` passes.
bool ControlClient::waitForInput(Clock::time_point until) {
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0) return false;
        FdSet rd, wr;
        rd.add(bus_.fd());
        int const ready = waitFds(rd, wr, static_cast<int>(left.count()));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("cannot wait for the bus: ") + std::strerror(errno));
        }
    }
}

// A kind-65 message from the host whose JSON object carries `id`.
bool ControlClient::isAnswerTo(MessageBase const& message, std::string const& id) const {
    auto const* routed = dynamic_cast<RouterMessage const*>(&message);
    if (routed == nullptr || routed->sender() != setup_.host) return false;
    auto const* system = dynamic_cast<SystemMessage const*>(routed->message());
    if (system == nullptr || system->kind() != control::kReplyKind) return false;
    json const body = json::parse(system->text(), nullptr, false);
    return body.is_object() && body.value(key::kId, json()) == id;
}

void ControlClient::noAnswer() const {
    throw std::runtime_error("no answer from " + setup_.host + " on the bus within " + setup_.timeoutText +
                             " s (is nxahost running?)");
}

json const& requireOk(json const& answer) {
    if (answer.is_object() && answer.contains(key::kOk) && answer[key::kOk] == true) return answer;
    bool const told = answer.is_object() && answer.contains(key::kError) && answer[key::kError].is_string();
    throw std::runtime_error(told ? answer[key::kError].get<std::string>() : "the host refused the request");
}

}  // namespace nxahost
