// NXAClient::Peer: the bounded queue every kind of peer shares.
#include "nxaclient.h"
#include "trace.h"

NXAClient::Peer::Peer(Module const& owner, std::string const& peerId)
    : module(owner), id(peerId), queue(), counters(), attachedAt(std::chrono::steady_clock::now()) {}

NXAClient::Peer::~Peer() = default;

void NXAClient::Peer::addFds(FdSet&, FdSet&) {}

void NXAClient::Peer::push(std::shared_ptr<bufdata_t> const& chunk) {
    queue.push_back(bufblock_t{0, chunk});
    counters.pushed += chunk->bytes.size();
    NXA_DETAIL(nxa::trace::kPeer, "push: queue size=", queue.size());
    // Oldest first, even a partly delivered block: a slow consumer loses output,
    // it never holds up the module.
    while (queue.size() > queueBound) {
        NXA_DETAIL(nxa::trace::kPeer, "pop element from queue with size=", queue.size());
        bufblock_t const& dropped = queue.front();
        ++counters.lostChunks;
        counters.lostBytes += dropped.data->bytes.size() - dropped.offset;
        queue.pop_front();
    }
}

void NXAClient::Peer::seedFromRunLog() {
    // The run log may have been erased from the peer set; a new peer then
    // starts with an empty queue.
    if (PeerLog const* runlog = module.getRunLogPeer()) queue = runlog->getQueue();
    counters.pushed += queuedBytes();
}

unsigned long long NXAClient::Peer::queuedBytes() const {
    unsigned long long bytes = 0;
    for (bufblock_t const& block : queue) bytes += block.data->bytes.size() - block.offset;
    return bytes;
}
