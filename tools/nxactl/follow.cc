#include "follow.h"

#include <nxahost/control_client.h>
#include <nxahost/device.h>
#include <unistd.h>
#include <vlplatform/fd_set.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "stop_signals.h"

namespace {

using json = nlohmann::json;
namespace control = nxahost::control;
namespace key = control::key;

// The kind of the subscription messages, and of the output they bring.
constexpr unsigned char kOutputControl = 4;
constexpr unsigned char kOutput = 34;

void requireModule(json const& status, std::string const& module) {
    for (json const& row : status.value(key::kModules, json::array())) {
        if (row.is_object() && row.value(key::kName, std::string()) == module) return;
    }
    throw std::runtime_error("no module named " + module);
}

// Writes all of `text` to standard output; false once it is closed.
bool writeOut(std::string const& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        ssize_t const n = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// The output text of `message` when it is a kind-34 message from `from`, else null.
std::string const* outputFrom(MessageBase const& message, std::string const& from) {
    auto const* routed = dynamic_cast<RouterMessage const*>(&message);
    if (routed == nullptr || routed->sender() != from) return nullptr;
    auto const* system = dynamic_cast<SystemMessage const*>(routed->message());
    return system != nullptr && system->kind() == kOutput ? &system->text() : nullptr;
}

// Prints what is queued; false once standard output is closed.
bool printQueued(VLPBusClient& bus, std::string const& from) {
    while (std::unique_ptr<MessageBase> message = bus.getMessage()) {
        std::string const* text = outputFrom(*message, from);
        if (text != nullptr && !writeOut(*text)) return false;
    }
    return true;
}

// Relays the module's output until a stop signal or a closed standard output.
void relay(VLPBusClient& bus, std::string const& from, StopSignals& signals) {
    for (;;) {
        FdSet rd, wr;
        rd.add(bus.fd());
        rd.add(signals.fd());
        if (waitFds(rd, wr, -1) < 0) {
            if (errno == EINTR) continue;
            throw std::runtime_error(std::string("cannot wait for the bus: ") + std::strerror(errno));
        }
        if (signals.take()) return;
        if (!rd.isSet(bus.fd())) continue;
        bool const connected = bus.read();
        if (!printQueued(bus, from)) return;
        if (!connected) throw std::runtime_error("lost the connection to the bus broker");
    }
}

}  // namespace

int follow(CtlOptions const& options) {
    std::string const& module = options.args[0];
    StopSignals signals;
    nxahost::ControlClient session(controlSetup(options));
    session.connect();
    requireModule(nxahost::requireOk(session.ask({{key::kCommand, control::kStatus}})), module);
    if (signals.take()) return 0;
    std::string const moduleBus = nxahost::moduleBusName(module);
    session.send(moduleBus, kOutputControl, "71-NXAStartOutput");
    relay(session.bus(), moduleBus, signals);
    session.send(moduleBus, kOutputControl, "72-NXAStopOutput");
    session.bus().disconnectFromServer();
    return 0;
}
