#include "module_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "sandbox.h"

namespace peerstest {

namespace {

sockaddr_in loopback(unsigned short port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

void setIntOption(int fd, int option, int value) {
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, option, &value, sizeof value), 0) << strerror(errno);
}

FdSet ready(int fd, bool forWriting, int timeoutMs) {
    FdSet rd, wr;
    (forWriting ? wr : rd).add(fd);
    if (waitFds(rd, wr, timeoutMs) <= 0) return FdSet();
    return forWriting ? wr : rd;
}

}  // namespace

unsigned short freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

void connectLoopback(Connection& out, ConnectionOptions const& options) {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(listener, 0) << strerror(errno);
    if (options.serverSndBuf) setIntOption(listener, SO_SNDBUF, options.serverSndBuf);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << strerror(errno);
    ASSERT_EQ(listen(listener, 1), 0) << strerror(errno);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    out.client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(out.client, 0) << strerror(errno);
    if (options.clientRcvBuf) setIntOption(out.client, SO_RCVBUF, options.clientRcvBuf);
    ASSERT_EQ(connect(out.client, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << strerror(errno);
    out.server = accept(listener, nullptr, nullptr);
    ASSERT_GE(out.server, 0) << strerror(errno);
    close(listener);
    // The send buffer is inherited from the listener; set it again to be sure.
    if (options.serverSndBuf) setIntOption(out.server, SO_SNDBUF, options.serverSndBuf);
}

void setNonBlocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    ASSERT_EQ(fcntl(fd, F_SETFL, flags | O_NONBLOCK), 0) << strerror(errno);
}

void resetAndClose(int fd) {
    linger lg{1, 0};
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg), 0) << strerror(errno);
    close(fd);
}

void writeAll(int fd, std::string const& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        ASSERT_GT(n, 0) << strerror(errno);
        done += static_cast<std::size_t>(n);
    }
}

std::string readBytes(int fd, std::size_t count, int timeoutMs) {
    std::string out;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (out.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        char buf[65536];
        std::size_t want = std::min(sizeof buf, count - out.size());
        ssize_t n = ::read(fd, buf, want);
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    return out;
}

FdSet readable(int fd, int timeoutMs) {
    return ready(fd, false, timeoutMs);
}
FdSet writable(int fd, int timeoutMs) {
    return ready(fd, true, timeoutMs);
}

std::string chunkText(NXAClient::bufblock_t const& block) {
    return block.data->bytes;
}

int cycle(NXAClient::Peers& peers, std::string& in, int timeoutMs) {
    FdSet rd, wr;
    peers.addFds(rd, wr);
    int n = waitFds(rd, wr, timeoutMs);
    if (n <= 0) return n;
    peers.forward(rd, in);
    peers.write(wr);
    return n;
}

void ModuleTest::SetUp() {
    NXA_REQUIRE_SANDBOX();
    NXAClient::debug = 0;
    module_ = std::make_unique<NXAClient::Module>(kModuleName, freePort(), proc);
}

void ModuleTest::TearDown() {
    module_.reset();
    NXAClient::debug = 0;
}

void ModuleTest::push(std::string const& bytes) {
    peers().push(reinterpret_cast<unsigned char const*>(bytes.data()), bytes.size());
}

std::deque<NXAClient::bufblock_t>& ModuleTest::queueOf(std::string const& id) {
    NXAClient::Peer* peer = peers().find(id);
    if (!peer) throw std::runtime_error("no peer " + id);
    return NXATestAccess::queue(*peer);
}

std::vector<std::string> ModuleTest::ids() {
    std::vector<std::string> out;
    for (auto const& entry : NXATestAccess::peerMap(peers())) out.push_back(entry.first);
    return out;
}

}  // namespace peerstest
