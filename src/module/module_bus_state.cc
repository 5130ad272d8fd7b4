// NXAClient::Module: its state on the bus, and its bus connection after the
// broker came back.
#include <vlplatform/messages.h>

#include "nxaclient.h"

namespace {

constexpr char kBusServer[] = "VLPBusServer";

}  // namespace

void NXAClient::Module::announce(std::string const& state) const {
    // A send that fails may take the connection down.
    noteChanged();
    if (!busConnected()) return;
    SystemSetStateVlpBusMessage message(state, "", 0);
    bus->sendTo(bus->name(), kBusServer, message.clone());
}

bool NXAClient::Module::busConnected() const {
    return bus != nullptr && bus->isConnected();
}

bool NXAClient::Module::reconnectBus() {
    noteChanged();
    if (bus == nullptr) return false;
    if (bus->isConnected()) return true;
    bus->connectToServer();
    if (!bus->isConnected()) return false;
    announceOnBus();
    return true;
}
