// NXAClient::Module: one polling turn. Output of the program goes from the
// terminal to the peers (readTerminal -> Peers::push); input from the peers
// gathers in bufConn2Child (Peers::forward) and goes to the terminal
// (writeTerminal). The module's own bus connection carries the subscriptions.
#include <unistd.h>
#include <vlplatform/log_util.h>
#include <vlplatform/messages.h>
#include <vlplatform/net.h>

#include <cerrno>
#include <mutex>

#include "module_trace.h"
#include "nxaclient.h"
#include "output_messages.h"

namespace {

using nxa::module::kHandleInput;
using nxa::module::kHandleOutput;
using nxa::trace::kModule;

// At most this much of the program's output is read per turn.
constexpr std::size_t kTerminalChunk = 512;

// The bytes just read from the terminal, as a hex dump among the trace lines.
void dumpTerminalChunk(unsigned char const* bytes, std::size_t length) {
    if (NXAClient::debug <= 1) return;
    std::lock_guard<std::mutex> lock(LogUtil::logMutex);
    hexdump(std::cout, bytes, bytes + length, "master", 16, 1, true);
    std::cout.flush();
}

}  // namespace

void NXAClient::Module::addFds(FdSet& rd, FdSet& wr) const {
    if (serverfd != -1) rd.add(serverfd);
    if (bus != nullptr) rd.add(bus->fd());
    if (master != -1) {
        rd.add(master);
        if (!bufConn2Child.empty()) wr.add(master);
    }
    peers.addFds(rd, wr);
}

void NXAClient::Module::noteChanged() const {
    if (changeNote.changed == nullptr || changeNote.listed) return;
    changeNote.listed = true;
    changeNote.changed->push_back(changeNote.slot);
}

void NXAClient::Module::handleInput(FdSet const& rd) {
    noteChanged();
    if (serverfd >= 0 && rd.isSet(serverfd)) acceptConnection();
    if (master >= 0 && rd.isSet(master)) readTerminal();
    if (bus != nullptr && bus->fd() >= 0 && rd.isSet(bus->fd())) serveBus();
    peers.forward(rd, bufConn2Child);
}

// One new telnet client per turn.
void NXAClient::Module::acceptConnection() {
    int fd = acceptClient(serverfd, nullptr, nullptr);
    NXA_DEBUG_AS(kModule, kHandleInput, "accepted connection: fd=", fd);
    peers.add(fd);
}

// One read of at most 512 bytes, handed to every peer at once.
void NXAClient::Module::readTerminal() {
    unsigned char chunk[kTerminalChunk];
    ssize_t n = ::read(master, chunk, sizeof chunk);
    int err = errno;
    NXA_DETAIL_AS(kModule, kHandleInput, "read (", n, ") data from the PTY master=", master,
                  " to bufChild2Conn");
    if (n == -1) throw IOException(err, "cannot read from PTTY");  // misspelt on purpose
    if (n > 0) {
        dumpTerminalChunk(chunk, static_cast<std::size_t>(n));
        peers.push(chunk, static_cast<unsigned long>(n));
        return;
    }
    // The child is left to the supervisor, which reaps it.
    NXA_DEBUG_AS(kModule, kHandleInput, "pid=", ::getpid(), ": close master=", master, " slave=", slave);
    closeTerminal();
}

// Reads the module's own bus connection and acts on every message received.
void NXAClient::Module::serveBus() {
    if (!bus->read()) {
        NXA_WARNING_AS(kModule, kHandleInput, "VLPBus server is gone");
        return;
    }
    while (std::unique_ptr<MessageBase> msg = bus->getMessage()) {
        NXA_DEBUG_AS(kModule, kHandleInput, *msg);
        handleMessage(*msg);
    }
}

void NXAClient::Module::handleOutput(FdSet const& wr) {
    noteChanged();
    if (master >= 0 && wr.isSet(master) && !bufConn2Child.empty()) writeTerminal();
    peers.write(wr);
}

// One write of everything waiting; what the terminal did not take stays, in order.
void NXAClient::Module::writeTerminal() {
    ssize_t n = ::write(master, bufConn2Child.data(), bufConn2Child.size());
    int err = errno;
    NXA_DETAIL_AS(kModule, kHandleOutput, "write (", bufConn2Child.size(), "/", n,
                  ") data from bufConn2Child to the PTY master=", master);
    if (n == -1) throw IOException(err, "cannot write to PTY master");
    if (n > 0) {
        bufConn2Child.erase(0, static_cast<std::size_t>(n));
        return;
    }
    // The process id runs straight into "EOF": the text is fixed.
    NXA_DETAIL_AS(kModule, kHandleOutput, "pid=", ::getpid(), "EOF: close master=", master, " slave=", slave);
    closeTerminal();
}

void NXAClient::Module::handleMessage(MessageBase const& msg) {
    noteChanged();
    NXA_DEBUG(kModule, "msg=", msg);
    auto const* router = dynamic_cast<RouterMessage const*>(&msg);
    if (router == nullptr) return;
    NXA_DEBUG(kModule, "rm=", *router);
    auto const* system = dynamic_cast<SystemMessage const*>(router->message());
    if (system == nullptr) return;
    NXA_DEBUG(kModule, "sm=", *system);
    if (system->kind() != nxa::kCommandKind) return;
    if (system->text() == nxa::kStartOutput) {
        peers.add(router->sender());
        return;
    }
    if (system->text() == nxa::kStopOutput) peers.erase(router->sender());
}

void NXAClient::Module::handleInput(SystemMessage const& sm) {
    noteChanged();
    std::string const& text = sm.text();
    if (text.empty()) return;
    peers.push(reinterpret_cast<unsigned char const*>(text.data()), text.size());
}
