// The browser console's server: setting up libwebsockets on the host's GLib
// context, one turn of it, and the callback every event of it comes through.
#include "web_server.h"

#include <libwebsockets.h>
#include <nxahost/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace nxahost {
namespace {

// Descriptors of libwebsockets beyond the connections: its listening socket,
// its wake-up pipe, and room to answer a few connections beyond the limit
// with a refusal. Beyond that, connections wait to be accepted.
constexpr unsigned kSpareDescriptors = 16;
// A WebSocket that has been silent this long is pinged, and closed when it
// stays silent this much longer (a browser whose machine or network is gone).
constexpr std::uint16_t kPingAfterSeconds = 30;
constexpr std::uint16_t kHangUpAfterSeconds = 45;
// An HTTP connection that sent no complete request this long is closed, and
// so is an idle kept-alive one.
constexpr unsigned kRequestTimeoutSeconds = 10;
constexpr int kKeepAliveSeconds = 5;

// libwebsockets' latest error line, for the reason of a failed set-up.
std::string lastLibraryError;
bool libraryLinesShown = false;

void libraryLine(int level, char const* line) {
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (level == LLL_ERR) lastLibraryError = text;
    if (libraryLinesShown) hostLog("[DEBUG] ", "libwebsockets: ", text);
}

int callbackOfAll(lws* wsi, lws_callback_reasons reason, void* user, void* in, std::size_t length) {
    return WebConsole::Server::callback(wsi, reason, user, in, length);
}

lws_protocols const kProtocols[] = {
    {"http", callbackOfAll, 0, 0, 0, nullptr, 0},
    {"nxa-terminal", callbackOfAll, 0, WebTerminal::kMessageBytes, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

lws_retry_bo_t const kIdlePolicy = {nullptr, 0, 0, kPingAfterSeconds, kHangUpAfterSeconds, 0};

}  // namespace

WebConsole::WebConsole(NXAClient& client, WebConsoleSetup setup, WebConsoleHooks hooks)
    : server_(std::make_unique<Server>(client, std::move(setup), std::move(hooks))) {}

WebConsole::~WebConsole() = default;

int WebConsole::addFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    return server_->addFds(rd, wr, timeoutMs);
}

void WebConsole::serve(FdSet const& rd, FdSet const& wr) {
    server_->serve(rd, wr);
}

std::string installedWebRoot() {
    char exe[PATH_MAX];
    ssize_t const length = readlink("/proc/self/exe", exe, sizeof exe - 1);
    std::string path(exe, length > 0 ? static_cast<std::size_t>(length) : 0);
    // <prefix>/bin/<program>: drop the program's name and its folder.
    for (int i = 0; i < 2 && path.rfind('/') != std::string::npos; ++i) path.erase(path.rfind('/'));
    if (path.empty()) path = "/usr";
    return path + "/" NXA_WEB_DATADIR;
}

bool holdsWebPages(std::string const& root) {
    struct stat info {};
    return stat((root + "/index.html").c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

WebConsole::Server::Server(NXAClient& client, WebConsoleSetup setup, WebConsoleHooks hooks)
    : client_(client), setup_(std::move(setup)), hooks_(std::move(hooks)) {
    libraryLinesShown = setup_.debug > 0;
    lws_set_log_level(LLL_ERR | (libraryLinesShown ? LLL_WARN | LLL_NOTICE : 0), libraryLine);
    lws_context_creation_info info;
    std::memset(&info, 0, sizeof info);
    info.options = LWS_SERVER_OPTION_GLIB | LWS_SERVER_OPTION_DISABLE_IPV6 | LWS_SERVER_OPTION_VALIDATE_UTF8;
    void* loops[] = {glib_.loop()};
    info.foreign_loops = loops;
    info.port = setup_.port;
    info.iface = setup_.address == "0.0.0.0" ? nullptr : setup_.address.c_str();
    info.protocols = kProtocols;
    info.user = this;
    info.gid = -1;
    info.uid = -1;
    info.fd_limit_per_thread = kMaxConnections + kSpareDescriptors;
    info.timeout_secs = kRequestTimeoutSeconds;
    info.keepalive_timeout = kKeepAliveSeconds;
    info.retry_and_idle_policy = &kIdlePolicy;
    info.server_string = "nxahost";
    lastLibraryError.clear();
    context_ = lws_create_context(&info);
    if (context_ == nullptr) {
        throw std::runtime_error("cannot serve the browser console on " + setup_.address + ":" +
                                 std::to_string(setup_.port) +
                                 (lastLibraryError.empty() ? std::string() : ": " + lastLibraryError));
    }
}

WebConsole::Server::~Server() {
    lws_context_destroy(context_);
    glib_.runPending(16);
}

int WebConsole::Server::addFds(FdSet& rd, FdSet& wr, int timeoutMs) {
    return glib_.addFds(rd, wr, timeoutMs);
}

// The terminals take what their modules printed this turn before the
// connections are served.
void WebConsole::Server::serve(FdSet const& rd, FdSet const& wr) {
    for (auto const& entry : connections_) {
        if (entry.second.terminal) entry.second.terminal->serve();
    }
    glib_.dispatch(rd, wr);
}

// An exception must not unwind through libwebsockets: it closes the
// connection it came from.
int WebConsole::Server::callback(lws* wsi, int reason, void* user, void* in, std::size_t length) {
    auto* console = static_cast<Server*>(lws_context_user(lws_get_context(wsi)));
    auto const why = static_cast<lws_callback_reasons>(reason);
    if (console == nullptr) return lws_callback_http_dummy(wsi, why, user, in, length);
    try {
        int const handled = console->handle(wsi, reason, in, length);
        return handled == kNotHandled ? lws_callback_http_dummy(wsi, why, user, in, length) : handled;
    } catch (std::exception const& e) {
        hostLog(kHostWarning, "browser console: ", e.what());
    } catch (...) {
        hostLog(kHostWarning, "browser console: unknown exception");
    }
    return -1;
}

int WebConsole::Server::handle(lws* wsi, int reason, void* in, std::size_t length) {
    switch (reason) {
        case LWS_CALLBACK_SERVER_NEW_CLIENT_INSTANTIATED:
            connections_[wsi].fd = lws_get_socket_fd(wsi);
            return 0;
        case LWS_CALLBACK_WSI_DESTROY:
            forget(wsi);
            return 0;
        case LWS_CALLBACK_HTTP:
            return onRequest(wsi, std::string(static_cast<char const*>(in), length));
        case LWS_CALLBACK_HTTP_BODY:
            return 0;
        case LWS_CALLBACK_HTTP_BODY_COMPLETION:
            return onBodyComplete(wsi);
        case LWS_CALLBACK_HTTP_WRITEABLE:
            return onHttpWritable(wsi);
        case LWS_CALLBACK_FILTER_PROTOCOL_CONNECTION:
            return onTerminalRequest(wsi);
        case LWS_CALLBACK_ESTABLISHED:
            return onTerminalOpen(wsi);
        case LWS_CALLBACK_RECEIVE:
            return onTyped(wsi, static_cast<char const*>(in), length);
        case LWS_CALLBACK_SERVER_WRITEABLE:
            return onTerminalWritable(wsi);
        case LWS_CALLBACK_CLOSED:
            onTerminalClosed(wsi);
            return 0;
        default:
            return kNotHandled;
    }
}

// The connection's socket is closed by now: its number may come back with
// the next connection, so the host's wait must forget it at once.
void WebConsole::Server::forget(lws* wsi) {
    auto const found = connections_.find(wsi);
    if (found == connections_.end()) return;
    if (found->second.fd >= 0) glib_.forget(found->second.fd);
    connections_.erase(found);
}

// Every connection has one, made when libwebsockets reports it; a
// connection it never reported gets one at its first event.
WebConsole::Server::Connection* WebConsole::Server::connection(lws* wsi) {
    return &connections_[wsi];
}

}  // namespace nxahost
