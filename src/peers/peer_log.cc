// NXAClient::PeerLog: the module's run log, a peer that nobody drains.
#include "nxaclient.h"

NXAClient::PeerLog::PeerLog(Module const& owner) : Peer(owner, "client") {}

NXAClient::PeerLog::~PeerLog() {
    PeerLog::close();
}

void NXAClient::PeerLog::close() {}

bool NXAClient::PeerLog::forward(FdSet const&, std::string&) {
    return false;
}

void NXAClient::PeerLog::write(FdSet const&) {}

void NXAClient::PeerLog::move(std::string& out) {
    std::size_t total = out.size();
    for (bufblock_t const& block : queue) total += block.data->bytes.size();
    out.reserve(total);
    while (!queue.empty()) {
        out += queue.front().data->bytes;
        countDelivered(queue.front().data->bytes.size());
        queue.pop_front();
    }
}
