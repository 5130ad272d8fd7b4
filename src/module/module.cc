// NXAClient::Module: construction (socket, terminal pair, bus connection and
// the module's announcement) and the run-log queries.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>
#include <vlplatform/messages.h>
#include <vlplatform/net.h>

#include <cerrno>
#include <typeinfo>

#include "module_trace.h"
#include "nxaclient.h"

namespace {

using nxa::module::kConstructor;
using nxa::trace::kModule;

// The bus server every module talks to ("" is the platform's default host).
constexpr char kBusHost[] = "";
constexpr char kBusServer[] = "VLPBusServer";
constexpr int kBusAttempts = 10;
// VLPBus::statusNames[2]: the state a module announces once it is set up.
constexpr std::size_t kStateRunning = 2;
constexpr int kListenBacklog = 1;

// The run-log peer the peer set was made with; std::bad_cast when it is none.
NXAClient::PeerLog& runLogOf(NXAClient::Peers const& peers) {
    NXAClient::Peer* first = peers.find("client");
    if (first == nullptr) throw std::bad_cast();
    return dynamic_cast<NXAClient::PeerLog&>(*first);
}

}  // namespace

std::map<std::string, std::set<std::string>> const NXAClient::Module::archmap = {
    {"i586", {"i586", "i686"}},
    {"i686", {"i686"}},
};

NXAClient::Module::Module(std::string const& moduleName, unsigned short port, Proc& children)
    : name(moduleName),
      childpid(-1),
      proc(children),
      serverfd(-1),
      master(-1),
      slave(-1),
      bus(nullptr),
      peers(*this, {new PeerLog(*this)}),
      runlog(runLogOf(peers)) {
    NXA_DEBUG(kModule, "name=", name);
    openListeningSocket(port);
    openTerminal();
    connectToBus();
    announceOnBus();
}

// A socket listening on every local IPv4 address at `port`. Only the socket
// itself and its option are required; see bindAndListen.
void NXAClient::Module::openListeningSocket(unsigned short port) {
    serverfd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (serverfd == -1) throw IOException(errno, "create socket");
    noteDescriptorOpened(serverfd);
    int on = 1;
    if (::setsockopt(serverfd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1)
        throw IOException(errno, "cannot set SO_REUSEADDR");
    bindAndListen(port);
}

// A port that cannot be bound is only reported: the module still runs, and its
// unbound socket stays open and keeps being polled. Deliberate.
void NXAClient::Module::bindAndListen(unsigned short port) {
    sockaddr_in addr{};
    socklen_t len = setInetAddr(nullptr, port, addr);
    NXA_DETAIL_AS(kModule, kConstructor, "serveraddr=", addr);
    try {
        bindSocket(serverfd, addr, len);
        listenConnection(serverfd, kListenBacklog);
    } catch (IOException const& e) {
        NXA_ERROR_AS(kModule, kConstructor, e.what());
    } catch (...) {
        NXA_ERROR_AS(kModule, kConstructor, "unknown exception");
    }
}

void NXAClient::Module::openTerminal() {
    if (openPtyPair(master, slave, O_RDWR) == -1) throw IOException(errno, "cannot open PTY pair");
    NXA_DETAIL_AS(kModule, kConstructor, "open PTY pair: master=", master, ", slave=", slave);
}

// The client is stored before it is known to connect: when the retries give
// up, the exception leaves it allocated (and the descriptors open). Deliberate.
void NXAClient::Module::connectToBus() {
    bus = new VLPBusClient(kBusHost, NXA_BUS_PORT, NXA_MODULE_BUS_PREFIX + name);
    bus->setup();
    retryBusConnection();
    NXA_INFO_AS(kModule, kConstructor, "connection to VLPBus server established");
}

// Up to ten more attempts, one second apart, each announced by a WARNING line.
void NXAClient::Module::retryBusConnection() {
    for (int budget = kBusAttempts; !bus->isConnected();) {
        NXA_WARNING_AS(kModule, kConstructor, "connection to VLPBus server failed, retrying...");
        ::sleep(1);
        bus->connectToServer();
        if (--budget == 0 && !bus->isConnected())
            throw VLException("[ERROR] Connection to VLPBus server failed");
    }
}

void NXAClient::Module::announceOnBus() {
    SystemSetStateVlpBusMessage state(VLPBus::statusNames[kStateRunning], "", 0);
    bus->sendTo(bus->name(), kBusServer, state.clone());
}

void NXAClient::Module::getRunLog(std::string& out) const {
    if (PeerLog* log = getRunLogPeer()) log->move(out);
}

// `runlog` may refer to a destroyed peer once "client" has been erased, so it is
// only compared, never followed, until the set shows that it is still there.
NXAClient::PeerLog* NXAClient::Module::getRunLogPeer() const {
    PeerLog* current = dynamic_cast<PeerLog*>(peers.find("client"));
    return current == &runlog ? current : nullptr;
}
