// NXAClient::PeerLocal: a consumer inside the host's process, drained by the
// host rather than through a descriptor.
#include "nxaclient.h"

NXAClient::PeerLocal::PeerLocal(Module const& owner, std::string const& peerId, std::string where)
    : Peer(owner, peerId), address(std::move(where)) {
    seedFromRunLog();
}

NXAClient::PeerLocal::~PeerLocal() {
    PeerLocal::close();
}

void NXAClient::PeerLocal::close() {}

// What it types comes through Module::typeLocalInput, not through a descriptor.
bool NXAClient::PeerLocal::forward(FdSet const&, std::string&) {
    return false;
}

// The host takes the output (take); nothing is written here.
void NXAClient::PeerLocal::write(FdSet const&) {}

std::size_t NXAClient::PeerLocal::take(std::string& out, std::size_t most) {
    std::size_t taken = 0;
    while (!queue.empty() && taken < most) {
        bufblock_t& front = queue.front();
        std::size_t const rest = front.data->bytes.size() - front.offset;
        std::size_t const n = std::min(rest, most - taken);
        out.append(front.data->bytes, front.offset, n);
        front.offset += n;
        taken += n;
        countDelivered(n);
        if (front.offset == front.data->bytes.size()) queue.pop_front();
    }
    return taken;
}
