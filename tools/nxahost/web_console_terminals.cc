// The browser console's terminals: a WebSocket on /module/NAME/terminal,
// relayed to the module's port (see WebTerminal).
#include <libwebsockets.h>

#include <algorithm>

#include "host_log.h"
#include "web_console.h"
#include "web_request.h"

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
int WebConsole::onTerminalRequest(lws* wsi) {
    if (!trustedHost(wsi) || !sameOrigin(wsi)) return 1;
    std::optional<std::string> const module =
        moduleInPath(requestHeader(wsi, WSI_TOKEN_GET_URI), "/terminal");
    if (!module) return 1;
    requestedTerminals_[wsi] = *module;
    return 0;
}

int WebConsole::onTerminalOpen(lws* wsi) {
    auto const requested = requestedTerminals_.find(wsi);
    if (requested == requestedTerminals_.end()) return -1;
    std::string const module = requested->second;
    requestedTerminals_.erase(requested);
    if (overLimit()) {
        refuseTerminal(wsi, kCloseBusy,
                       "too many browser connections: at most " + std::to_string(kMaxConnections));
        return 0;
    }
    int const port = hooks_.port(module);
    if (port < 0) {
        refuseTerminal(wsi, kCloseNoModule, "no module named " + module);
        return 0;
    }
    auto terminal = std::make_unique<WebTerminal>(wsi, module, static_cast<unsigned short>(port));
    hostLog(kHostInfo, "browser terminal of module ", module, " opened from ", peerOf(wsi), ", attached as ",
            terminal->relayAddress());
    terminals_[wsi] = std::move(terminal);
    return 0;
}

void WebConsole::refuseTerminal(lws* wsi, int code, std::string const& reason) {
    refusals_[wsi] = {code, reason};
    lws_callback_on_writable(wsi);
}

int WebConsole::onTyped(lws* wsi, char const* bytes, std::size_t length) {
    auto const terminal = terminals_.find(wsi);
    if (terminal != terminals_.end()) terminal->second->typed(bytes, length);
    return 0;
}

int WebConsole::onTerminalWritable(lws* wsi) {
    auto const refusal = refusals_.find(wsi);
    if (refusal != refusals_.end()) {
        closeWith(wsi, refusal->second.first, refusal->second.second);
        return -1;
    }
    auto const terminal = terminals_.find(wsi);
    if (terminal == terminals_.end() || terminal->second->writeToBrowser()) return 0;
    closeWith(wsi, LWS_CLOSE_STATUS_GOINGAWAY, terminal->second->closeReason());
    return -1;
}

void WebConsole::closeWith(lws* wsi, int code, std::string const& reason) {
    std::string const text = reason.substr(0, kReasonBytes);
    lws_close_reason(wsi, static_cast<lws_close_status>(code),
                     reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), text.size());
}

void WebConsole::onTerminalClosed(lws* wsi) {
    auto const terminal = terminals_.find(wsi);
    if (terminal == terminals_.end()) return;
    hostLog(kHostInfo, "browser terminal of module ", terminal->second->module(), " (",
            terminal->second->relayAddress(), ") closed");
    terminals_.erase(terminal);
}
