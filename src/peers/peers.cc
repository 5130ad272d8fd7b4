// NXAClient::Peers: a module's peers, keyed by id and visited in id order.
#include <vlplatform/log_util.h>

#include <algorithm>
#include <iterator>
#include <typeinfo>

#include "nxaclient.h"
#include "trace.h"

NXAClient::Peers::Peers(Module const& owner, std::initializer_list<Peer*> initial) : module(owner), peers() {
    for (Peer* peer : initial) {
        std::unique_ptr<Peer> owned(peer);
        if (!owned) continue;
        std::string id = owned->getId();
        // A peer whose id is taken is destroyed here, with its unique_ptr.
        if (peers.find(id) == peers.end()) peers.emplace(std::move(id), std::move(owned));
    }
    notePeersChanged();
}

void NXAClient::Peers::notePeersChanged() {
    onlyRunLogs = std::all_of(peers.begin(), peers.end(),
                              [](auto const& entry) { return typeid(*entry.second) == typeid(PeerLog); });
}

NXAClient::Peers::~Peers() = default;

void NXAClient::Peers::add(int fd) {
    NXA_DEBUG(nxa::trace::kPeer, "add peer: fd=", fd);
    std::string id = "telnet:" + makeString<int>(fd);
    auto hint = peers.lower_bound(id);
    if (hint != peers.end() && hint->first == id) {
        // Deliberately neither adopted nor closed: fd stays open, untracked.
        NXA_WARNING(nxa::trace::kPeer, "cannot add peer ", id, ": already exists");
        return;
    }
    auto peer = std::make_unique<PeerTelnet>(module, id, fd);
    peers.emplace_hint(hint, std::move(id), std::move(peer));
    onlyRunLogs = false;
}

void NXAClient::Peers::add(std::string const& id) {
    NXA_DEBUG(nxa::trace::kPeer, "add peer: id=", id);
    auto hint = peers.lower_bound(id);
    if (hint != peers.end() && hint->first == id) {
        NXA_WARNING(nxa::trace::kPeer, "cannot add peer ", id, ": already exists");
        return;
    }
    peers.emplace_hint(hint, id, std::make_unique<PeerVLPBus>(module, id));
    onlyRunLogs = false;
}

bool NXAClient::Peers::adopt(std::unique_ptr<Peer> peer) {
    std::string const id = peer->getId();
    auto hint = peers.lower_bound(id);
    if (hint != peers.end() && hint->first == id) return false;
    peers.emplace_hint(hint, id, std::move(peer));
    notePeersChanged();
    return true;
}

void NXAClient::Peers::erase(std::string const& id) {
    NXA_DEBUG(nxa::trace::kPeer, "id=", id);
    auto it = peers.find(id);
    if (it == peers.end()) {
        NXA_WARNING(nxa::trace::kPeer, "cannot erase peer ", id, ": did not exist");
        return;
    }
    peers.erase(it);
    notePeersChanged();
}

void NXAClient::Peers::push(unsigned char const* data, unsigned long length) const {
    if (peers.empty()) return;
    auto chunk = std::make_shared<bufdata_t>();
    chunk->bytes.assign(reinterpret_cast<char const*>(data), length);
    for (auto const& entry : peers) entry.second->push(chunk);
}

void NXAClient::Peers::forward(FdSet const& rd, std::string& in) {
    if (onlyRunLogs) return;
    for (auto it = peers.begin(); it != peers.end();) {
        // Taken before the visit: the visited peer may be removed.
        auto next = std::next(it);
        if (it->second->forward(rd, in)) {
            NXA_DEBUG(nxa::trace::kPeer, "erasing peer ", it->first);
            peers.erase(it);
            notePeersChanged();
        }
        it = next;
    }
}

void NXAClient::Peers::write(FdSet const& wr) const {
    if (onlyRunLogs) return;
    for (auto const& entry : peers) entry.second->write(wr);
}

void NXAClient::Peers::addFds(FdSet& rd, FdSet& wr) const {
    if (onlyRunLogs) return;
    for (auto const& entry : peers) entry.second->addFds(rd, wr);
}

void NXAClient::Peers::close() const {
    for (auto const& entry : peers) entry.second->close();
}

NXAClient::Peer* NXAClient::Peers::find(std::string const& id) const {
    auto it = peers.find(id);
    return it == peers.end() ? nullptr : it->second.get();
}

std::vector<NXAClient::Peer const*> NXAClient::Peers::getPeers() const {
    std::vector<Peer const*> all;
    all.reserve(peers.size());
    for (auto const& entry : peers) all.push_back(entry.second.get());
    return all;
}
