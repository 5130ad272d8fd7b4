// NXAClient::PeerVLPBus: a bus subscriber of the module's output, served over
// the module's own bus connection, one system message per chunk.
#include <utility>

#include "nxaclient.h"
#include "output_messages.h"

namespace {

// The bus client's descriptor, -1 when there is no client or it is not connected.
int busFd(VLPBusClient const* bus) {
    return bus ? bus->fd() : -1;
}

}  // namespace

NXAClient::PeerVLPBus::PeerVLPBus(Module const& owner, std::string const& subscriber)
    : Peer(owner, subscriber) {
    seedFromRunLog();
}

NXAClient::PeerVLPBus::~PeerVLPBus() = default;

void NXAClient::PeerVLPBus::close() {}

void NXAClient::PeerVLPBus::addFds(FdSet&, FdSet& wr) {
    int fd = busFd(module.getBus());
    if (fd != -1 && !queue.empty()) wr.add(fd);
}

bool NXAClient::PeerVLPBus::forward(FdSet const&, std::string&) {
    return false;
}

void NXAClient::PeerVLPBus::write(FdSet const& wr) {
    VLPBusClient* bus = module.getBus();
    int fd = busFd(bus);
    if (fd < 0 || !wr.isSet(fd) || queue.empty()) return;
    auto msg = std::make_unique<SystemMessage>();
    msg->setKind(nxa::kTextKind);
    msg->setText(queue.front().data->bytes);
    msg->stripNullChar();
    bus->sendTo(NXAClient::NXA_MODULE_BUS_PREFIX + module.getName(), id, std::move(msg));
    // Only once sent: when sendTo throws, the chunk is tried again next cycle.
    countDelivered(queue.front().data->bytes.size() - queue.front().offset);
    queue.pop_front();
}
