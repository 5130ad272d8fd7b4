// NXAClient::PeerTelnet: a TCP connection accepted on the module's port. Bytes
// pass unchanged both ways; there is no telnet protocol handling.
#include <unistd.h>
#include <vlplatform/descriptors.h>

#include <cerrno>

#include "nxaclient.h"
#include "trace.h"

namespace {

// Most bytes taken from a client in one polling cycle.
constexpr std::size_t kReadSize = 512;

}  // namespace

NXAClient::PeerTelnet::PeerTelnet(Module const& owner, std::string const& peerId, int connection)
    : Peer(owner, peerId), fd(-1) {
    seedFromRunLog();
    fd = connection;
}

NXAClient::PeerTelnet::~PeerTelnet() {
    PeerTelnet::close();
}

void NXAClient::PeerTelnet::close() {
    if (fd == -1) return;
    closeDescriptor(fd);
    fd = -1;
}

void NXAClient::PeerTelnet::addFds(FdSet& rd, FdSet& wr) {
    if (fd == -1) return;
    rd.add(fd);
    if (!queue.empty()) wr.add(fd);
}

bool NXAClient::PeerTelnet::forward(FdSet const& rd, std::string& in) {
    if (fd < 0 || !rd.isSet(fd)) return false;
    char buf[kReadSize];
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n == -1) {
        int err = errno;
        throw IOException(err, "cannot read from " + id);
    }
    if (n == 0) {
        // End of stream ends the peer quietly; the peer set removes it.
        NXA_DEBUG(nxa::trace::kPeer, "EOF on ", id);
        close();
        return true;
    }
    in.append(buf, static_cast<std::size_t>(n));
    return false;
}

void NXAClient::PeerTelnet::write(FdSet const& wr) {
    if (fd < 0 || !wr.isSet(fd) || queue.empty()) return;
    bufblock_t& front = queue.front();
    std::string const& bytes = front.data->bytes;
    // Straight from the shared chunk: output is never copied per peer.
    ssize_t n = ::write(fd, bytes.data() + front.offset, bytes.size() - front.offset);
    if (n == -1) {
        int err = errno;
        throw IOException(err, "cannot write to " + id);
    }
    if (n == 0) {
        // Unlike end of stream on reading, this one is raised; the peer stays.
        close();
        throw VLException("EOF on " + id);
    }
    front.offset += static_cast<unsigned long long>(n);
    countDelivered(static_cast<unsigned long long>(n));
    if (front.offset >= bytes.size()) queue.pop_front();
}
