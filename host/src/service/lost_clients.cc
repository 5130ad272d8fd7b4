#include <nxahost/log.h>
#include <nxahost/lost_clients.h>
#include <nxahost/serve_failures.h>

#include <cerrno>
#include <system_error>

namespace nxahost {

namespace {

// A socket that is not ready after all, or a call cut short by a signal.
bool isTransient(std::exception const& e) {
    auto const* system = dynamic_cast<std::system_error const*>(&e);
    if (system == nullptr) return false;
    int const code = system->code().value();
    return code == EAGAIN || code == EWOULDBLOCK || code == EINTR;
}

// A TCP client or a browser terminal: a consumer that can type.
bool hasTypingClient(NXAClient::Module const& module) {
    using Kind = NXAClient::Module::ConsumerKind;
    for (NXAClient::Module::Consumer const& consumer : module.getConsumers()) {
        if (consumer.kind == Kind::tcp || consumer.kind == Kind::local) return true;
    }
    return false;
}

void detach(NXAClient& client, std::string const& peer) {
    for (NXAClient::Module* module : client.modules.getModules()) {
        if (!module->detach(peer)) continue;
        // Input typed by several clients is interleaved: it is kept unless
        // the lost client was the only one that could have typed it.
        if (!hasTypingClient(*module)) module->dropTypedInput();
        return;
    }
}

}  // namespace

bool dropLostClient(NXAClient& client, std::exception const& e) {
    std::string peer;
    if (!isClientFault(e.what(), peer)) return false;
    if (isTransient(e)) return true;
    hostLog(kHostInfo, "connection ", peer, " lost: ", e.what());
    detach(client, peer);
    return true;
}

}  // namespace nxahost
