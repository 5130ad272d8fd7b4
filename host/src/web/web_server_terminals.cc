// The browser console's terminals: a WebSocket on /module/NAME/terminal,
// relayed to the module's port (see WebTerminal).
#include <libwebsockets.h>
#include <nxahost/log.h>

#include <algorithm>

#include "web_request.h"
#include "web_server.h"

namespace nxahost {
namespace {

// Close codes: the server is busy (try again later); no such module.
constexpr int kCloseBusy = 1013;
constexpr int kCloseNoModule = 4404;
// The most a close reason carries.
constexpr std::size_t kReasonBytes = 123;

std::string peerOf(lws* wsi) {
    char peer[128] = "?";
    lws_get_peer_simple(wsi, peer, sizeof peer);
    return peer;
}

}  // namespace

// Before the handshake is answered: a terminal of a known path, asked for by
// the console's own page or by a program.
int WebConsole::Server::onTerminalRequest(lws* wsi) {
    if (!trustedHost(wsi) || !sameOrigin(wsi)) return 1;
    std::optional<std::string> const module =
        moduleInPath(requestHeader(wsi, WSI_TOKEN_GET_URI), "/terminal");
    if (!module) return 1;
    connection(wsi)->requestedTerminal = *module;
    return 0;
}

int WebConsole::Server::onTerminalOpen(lws* wsi) {
    Connection* const c = connection(wsi);
    if (!c->requestedTerminal) return -1;
    std::string const module = *c->requestedTerminal;
    c->requestedTerminal.reset();
    if (overLimit()) {
        refuseTerminal(wsi, kCloseBusy,
                       "too many browser connections: at most " + std::to_string(kMaxConnections));
        return 0;
    }
    if (client_.modules.find(module) == nullptr) {
        refuseTerminal(wsi, kCloseNoModule, "no module named " + module);
        return 0;
    }
    std::string const browser = peerOf(wsi);
    auto terminal = std::make_unique<WebTerminal>(wsi, client_, module,
                                                  "browser:" + std::to_string(++terminalSerial_), browser);
    hostLog(kHostInfo, "browser terminal of module ", module, " opened from ", browser, ", attached as ",
            terminal->id());
    c->terminal = std::move(terminal);
    return 0;
}

void WebConsole::Server::refuseTerminal(lws* wsi, int code, std::string const& reason) {
    connection(wsi)->refusal = std::make_pair(code, reason);
    lws_callback_on_writable(wsi);
}

int WebConsole::Server::onTyped(lws* wsi, char const* bytes, std::size_t length) {
    Connection* const c = connection(wsi);
    if (c->terminal) c->terminal->typed(bytes, length);
    return 0;
}

int WebConsole::Server::onTerminalWritable(lws* wsi) {
    Connection* const c = connection(wsi);
    if (c->refusal) {
        closeWith(wsi, c->refusal->first, c->refusal->second);
        return -1;
    }
    if (!c->terminal || c->terminal->writeToBrowser()) return 0;
    closeWith(wsi, LWS_CLOSE_STATUS_GOINGAWAY, c->terminal->closeReason());
    return -1;
}

void WebConsole::Server::closeWith(lws* wsi, int code, std::string const& reason) {
    std::string const text = reason.substr(0, kReasonBytes);
    lws_close_reason(wsi, static_cast<lws_close_status>(code),
                     reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), text.size());
}

void WebConsole::Server::onTerminalClosed(lws* wsi) {
    Connection* const c = connection(wsi);
    if (!c->terminal) return;
    hostLog(kHostInfo, "browser terminal of module ", c->terminal->module(), " (", c->terminal->id(),
            ") closed");
    c->terminal.reset();
}

}  // namespace nxahost
