// The browser console: a status page, a terminal page per module and the
// WebSockets behind the terminals, served by libwebsockets from the host's
// own loop.
#pragma once

#include <vlplatform/fd_set.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "glib_turn.h"
#include "web_terminal.h"

struct lws;
struct lws_context;

// What the console asks of the host.
struct WebConsoleHooks {
    // The status answer, as the operator's status control gives it.
    std::function<nlohmann::json()> status;
    // Starts a module's program again, as the restart control does, and calls
    // the function given once the new program runs (an empty text) or cannot
    // start (why); false, without calling it, for an unknown module.
    std::function<bool(std::string const&, std::function<void(std::string const&)>)> restart;
    // The port a running module listens on; -1 for an unknown module.
    std::function<int(std::string const&)> port;
};

// Where the console listens and what it serves.
struct WebConsoleSetup {
    std::string address;  // dotted IPv4 address; 0.0.0.0 for every address
    unsigned short port = 0;
    std::string root;  // the console's own pages, scripts and style sheet
    unsigned debug = 0;
};

// The console's server. libwebsockets runs on a GLib context that the host's
// loop drives (see GlibTurn): addFds before the host's wait, serve after it.
// Routes: GET / (status page), /status.json, /module/NAME (terminal page),
// the page's files; POST /module/NAME/restart (answered once the new program
// runs); the WebSocket
// /module/NAME/terminal (see WebTerminal). At most kMaxConnections browser
// connections are served at once; a request on a connection beyond them is
// answered 503 and a WebSocket beyond them is closed with code 1013 and a
// reason. Requests whose Host is not an address or "localhost", and POSTs and
// WebSockets from a page of another origin, are refused (403). Errors of one
// connection close that connection; nothing of the console ends the host.
class WebConsole {
public:
    static constexpr std::size_t kMaxConnections = 64;

    // Listens; throws std::runtime_error when the server cannot be set up
    // (the address taken, the event library missing).
    WebConsole(WebConsoleSetup setup, WebConsoleHooks hooks);
    // Closes every connection.
    ~WebConsole();
    WebConsole(WebConsole const&) = delete;
    WebConsole& operator=(WebConsole const&) = delete;

    // Adds the console's descriptors for this turn; returns `timeoutMs`
    // lowered to the console's own next deadline (negative: none).
    int addFds(FdSet& rd, FdSet& wr, int timeoutMs);
    // Serves what the wait found ready. After a wait that failed, pass sets
    // that hold nothing.
    void serve(FdSet const& rd, FdSet const& wr);

    // libwebsockets' callback for every protocol of the console (C linkage
    // through the library; never throws).
    static int callback(lws* wsi, int reason, void* user, void* in, std::size_t length);

private:
    // What handle() returns for an event libwebsockets' defaults deal with.
    static constexpr int kNotHandled = 1000;

    int handle(lws* wsi, int reason, void* in, std::size_t length);
    void forget(lws* wsi);
    // web_console_http.cc: HTTP requests.
    int onRequest(lws* wsi, std::string const& path);
    int onGet(lws* wsi, std::string const& path);
    int onBodyComplete(lws* wsi);
    int restart(lws* wsi, std::string const& module);
    void restartDone(lws* wsi, unsigned long serial, std::string const& module, std::string const& error);
    int replyRestarted(lws* wsi);
    int serveFile(lws* wsi, std::string const& path, char const* type);
    int reply(lws* wsi, unsigned status, std::string const& type, std::string body);
    int replyError(lws* wsi, unsigned status, std::string const& text);
    int writeReply(lws* wsi);
    // web_console_terminals.cc: the terminals' WebSockets.
    int onTerminalRequest(lws* wsi);
    int onTerminalOpen(lws* wsi);
    int onTyped(lws* wsi, char const* bytes, std::size_t length);
    int onTerminalWritable(lws* wsi);
    void onTerminalClosed(lws* wsi);
    void refuseTerminal(lws* wsi, int code, std::string const& reason);
    void closeWith(lws* wsi, int code, std::string const& reason);
    bool overLimit() const { return connections_.size() > kMaxConnections; }

    WebConsoleSetup setup_;
    WebConsoleHooks hooks_;
    GlibTurn glib_;
    lws_context* context_ = nullptr;
    std::set<lws*> connections_;
    std::map<lws*, std::string> replies_;
    std::map<lws*, std::string> pendingRestarts_;
    // Restarts asked for and not yet done, by connection: the request's serial,
    // so that an answer never goes to a later connection at the same address.
    std::map<lws*, unsigned long> awaitedRestarts_;
    unsigned long restartSerial_ = 0;
    // Restarts done and not yet answered: the module and the error, if any.
    std::map<lws*, std::pair<std::string, std::string>> restartOutcomes_;
    std::map<lws*, std::string> requestedTerminals_;
    std::map<lws*, std::unique_ptr<WebTerminal>> terminals_;
    std::map<lws*, std::pair<int, std::string>> refusals_;
};
