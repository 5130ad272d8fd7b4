// The browser console's server on libwebsockets, behind WebConsole.
#pragma once

#include <nxahost/web_console.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "glib_turn.h"
#include "web_terminal.h"

struct lws;
struct lws_context;

namespace nxahost {

// libwebsockets runs on a GLib context that the host's loop drives (see
// GlibTurn). Every event of every connection comes through callback(); what
// the server keeps of one connection is in its Connection, made when the
// connection is and gone with it.
class WebConsole::Server {
public:
    Server(NXAClient& client, WebConsoleSetup setup, WebConsoleHooks hooks);
    ~Server();
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    int addFds(FdSet& rd, FdSet& wr, int timeoutMs);
    void serve(FdSet const& rd, FdSet const& wr);

    // libwebsockets' callback for every protocol of the console (C linkage
    // through the library; never throws).
    static int callback(lws* wsi, int reason, void* user, void* in, std::size_t length);

private:
    // What handle() returns for an event libwebsockets' defaults deal with.
    static constexpr int kNotHandled = 1000;

    // One browser connection.
    struct Connection {
        // Its socket, as libwebsockets reported it; -1 when unknown.
        int fd = -1;
        // A reply whose headers went out: its body, written when the
        // connection may write.
        std::optional<std::string> reply;
        // A restart posted with a body: the module, restarted once the body is in.
        std::optional<std::string> restartAfterBody;
        // A restart asked for and not yet done: its serial, so that its answer
        // never goes to a later connection that has the same address.
        unsigned long awaitedRestart = 0;
        // A restart done and not yet answered: the module and the error, if any.
        std::optional<std::pair<std::string, std::string>> restartOutcome;
        // A terminal asked for in the handshake: the module.
        std::optional<std::string> requestedTerminal;
        // The open terminal.
        std::unique_ptr<WebTerminal> terminal;
        // A terminal refused once open: the close code and reason to send.
        std::optional<std::pair<int, std::string>> refusal;
    };

    int handle(lws* wsi, int reason, void* in, std::size_t length);
    Connection* connection(lws* wsi);
    void forget(lws* wsi);
    // web_server_http.cc: HTTP requests.
    int onRequest(lws* wsi, std::string const& path);
    int onGet(lws* wsi, std::string const& path);
    int onBodyComplete(lws* wsi);
    int onHttpWritable(lws* wsi);
    int restart(lws* wsi, std::string const& module);
    void restartDone(lws* wsi, unsigned long serial, std::string const& module, std::string const& error);
    int replyRestarted(lws* wsi, Connection& connection);
    int serveFile(lws* wsi, std::string const& path, char const* type);
    int reply(lws* wsi, unsigned status, std::string const& type, std::string body);
    int replyError(lws* wsi, unsigned status, std::string const& text);
    int writeReply(lws* wsi, Connection& connection);
    // web_server_terminals.cc: the terminals' WebSockets.
    int onTerminalRequest(lws* wsi);
    int onTerminalOpen(lws* wsi);
    int onTyped(lws* wsi, char const* bytes, std::size_t length);
    int onTerminalWritable(lws* wsi);
    void onTerminalClosed(lws* wsi);
    void refuseTerminal(lws* wsi, int code, std::string const& reason);
    void closeWith(lws* wsi, int code, std::string const& reason);
    bool overLimit() const { return connections_.size() > kMaxConnections; }

    NXAClient& client_;
    WebConsoleSetup setup_;
    WebConsoleHooks hooks_;
    GlibTurn glib_;
    lws_context* context_ = nullptr;
    std::map<lws*, Connection> connections_;
    unsigned long restartSerial_ = 0;
    // Numbers the terminals' consumers ("browser:N").
    unsigned long terminalSerial_ = 0;
};

}  // namespace nxahost
