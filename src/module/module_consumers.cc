// NXAClient::Module: its consumers as an operator sees them, and detaching one.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "nxaclient.h"

namespace {

constexpr char kRunLogId[] = "client";

// "a.b.c.d:port" of the peer connected to `fd`; empty when unknown or closed
// (a closed client's number may belong to another socket by now).
std::string peerAddress(int fd) {
    if (fd < 0) return {};
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0 || addr.sin_family != AF_INET)
        return {};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text);
    return std::string(text) + ":" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace

std::vector<NXAClient::Module::Consumer> NXAClient::Module::getConsumers() const {
    std::vector<Consumer> out;
    for (Peer const* each : peers.getPeers()) {
        Peer const& peer = *each;
        Consumer c;
        c.id = peer.getId();
        bool const log = &peer == getRunLogPeer();
        auto const* telnet = dynamic_cast<PeerTelnet const*>(&peer);
        auto const* local = dynamic_cast<PeerLocal const*>(&peer);
        c.kind = log                 ? ConsumerKind::log
                 : telnet != nullptr ? ConsumerKind::tcp
                 : local != nullptr  ? ConsumerKind::local
                                     : ConsumerKind::bus;
        if (telnet != nullptr && !log) c.address = peerAddress(telnet->getFd());
        if (local != nullptr) c.address = local->getAddress();
        c.counters = peer.getCounters();
        c.queuedChunks = peer.getQueue().size();
        c.queuedBytes = peer.queuedBytes();
        c.attachedAt = peer.getAttachedAt();
        out.push_back(std::move(c));
    }
    return out;
}

bool NXAClient::Module::detach(std::string const& id) {
    if (id == kRunLogId || peers.find(id) == nullptr) return false;
    noteChanged();
    peers.erase(id);
    return true;
}

bool NXAClient::Module::hasConsumer(std::string const& id) const {
    return peers.find(id) != nullptr;
}

bool NXAClient::Module::attachLocal(std::string const& id, std::string const& address) {
    if (!peers.adopt(std::make_unique<PeerLocal>(*this, id, address))) return false;
    noteChanged();
    return true;
}

std::size_t NXAClient::Module::takeLocalOutput(std::string const& id, std::string& out, std::size_t most) {
    auto* local = dynamic_cast<PeerLocal*>(peers.find(id));
    return local != nullptr ? local->take(out, most) : 0;
}

bool NXAClient::Module::typeLocalInput(std::string const& id, std::string const& bytes) {
    if (dynamic_cast<PeerLocal*>(peers.find(id)) == nullptr) return false;
    if (bytes.empty()) return true;
    // The terminal is asked for writing from the next turn on.
    noteChanged();
    bufConn2Child += bytes;
    return true;
}
