// What the peer tests share: a real module to own the peers (built inside the
// sandbox, with its broker), loopback TCP connections standing in for telnet
// clients, and one polling cycle the way a host drives a peer set.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "nxa_test_access.h"
#include "nxaclient.h"

namespace peerstest {

// Name of the fixture's module; its bus name is "NXAModule_demo".
constexpr char kModuleName[] = "demo";

// A TCP port nobody listens on right now (asked from the kernel).
unsigned short freePort();

// Both ends of one loopback TCP connection. `server` is the accepted end, the
// one a module adopts as a telnet peer; `client` plays the telnet client.
struct Connection {
    int server = -1;
    int client = -1;
};

// Options for the connection's ends, set before connecting.
struct ConnectionOptions {
    int clientRcvBuf = 0;  // SO_RCVBUF of the client end, 0: default
    int serverSndBuf = 0;  // SO_SNDBUF of the accepted end, 0: default
};

// Opens a connection over 127.0.0.1. Fails the test (fatally) on error.
void connectLoopback(Connection& out, ConnectionOptions const& options = {});

// Makes the descriptor non-blocking.
void setNonBlocking(int fd);

// Sets SO_LINGER {on, 0} and closes fd: the other end receives a reset.
void resetAndClose(int fd);

// Writes all of `bytes` to fd (blocking).
void writeAll(int fd, std::string const& bytes);

// Reads from fd until `count` bytes have come or `timeoutMs` passed.
std::string readBytes(int fd, std::size_t count, int timeoutMs = 10000);

// A read set holding fd if it becomes readable within timeoutMs, else empty.
FdSet readable(int fd, int timeoutMs = 10000);
// A write set holding fd if it becomes writable within timeoutMs, else empty.
FdSet writable(int fd, int timeoutMs = 10000);

// The chunk's bytes as a string (for comparisons).
std::string chunkText(NXAClient::bufblock_t const& block);

// One polling cycle over a peer set: addFds, wait (at most timeoutMs), forward
// into `in`, write. Returns the number of ready descriptors.
int cycle(NXAClient::Peers& peers, std::string& in, int timeoutMs);

// A test owning one real module ("demo", on a free port), with trace level 0.
// The module connects to the sandbox's broker, opens its socket and terminal,
// and starts no child. Each test restores trace level 0 when it ends.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    NXAClient::Module& module() { return *module_; }
    // The module's own peer set (holding the run log "client" at first).
    NXAClient::Peers& peers() { return NXATestAccess::peers(*module_); }
    // The module's run-log peer, null once erased.
    NXAClient::PeerLog* runLog() { return module_->getRunLogPeer(); }
    // Pushes `bytes` as one chunk through the module's peer set.
    void push(std::string const& bytes);
    // The queue of the peer `id` of the module's set (which must exist).
    std::deque<NXAClient::bufblock_t>& queueOf(std::string const& id);
    // The ids of the module's peer set, in visiting order.
    std::vector<std::string> ids();

    Proc proc{getpid()};
    std::unique_ptr<NXAClient::Module> module_;
};

}  // namespace peerstest
