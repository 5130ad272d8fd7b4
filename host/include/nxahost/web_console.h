// The browser console: a status page, a terminal page per module and the
// WebSockets behind the terminals, served from the host's own loop.
#pragma once

#include <nxaclient.h>
#include <vlplatform/fd_set.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace nxahost {

// What the console asks of the host.
struct WebConsoleHooks {
    // The status answer, as the operator's status control gives it.
    std::function<nlohmann::json()> status;
    // Starts a module's program again, as the restart control does, and calls
    // the function given once the new program runs (an empty text) or cannot
    // start (why); false, without calling it, for an unknown module.
    std::function<bool(std::string const&, std::function<void(std::string const&)>)> restart;
};

// Where the console listens and what it serves.
struct WebConsoleSetup {
    std::string address;  // dotted IPv4 address; 0.0.0.0 for every address
    unsigned short port = 0;
    std::string root;  // the console's own pages, scripts and style sheet
    unsigned debug = 0;
};

// The console's server, run from the host's loop with no thread of its own:
// addFds before the host's wait, serve after it. Routes: GET / (status page),
// /status.json, /module/NAME (terminal page), the page's files; POST
// /module/NAME/restart (answered once the new program runs); the WebSocket
// /module/NAME/terminal, served as a consumer of the module's own (see
// NXAClient::PeerLocal) that the module lists among its clients as
// "browser:N" and that can be kicked like one. At
// most kMaxConnections browser connections are served at once; a request on a
// connection beyond them is answered 503 and a WebSocket beyond them is closed
// with code 1013 and a reason. Requests whose Host is not an address or
// "localhost", and POSTs and WebSockets from a page of another origin, are
// refused (403). Errors of one connection close that connection; nothing of
// the console ends the host.
class WebConsole {
public:
    static constexpr std::size_t kMaxConnections = 64;

    // Listens; throws std::runtime_error when the server cannot be set up
    // (the address taken, the event library missing). The terminals are the
    // consumers of the modules of `client`, which must outlive the console.
    WebConsole(NXAClient& client, WebConsoleSetup setup, WebConsoleHooks hooks);
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

    class Server;

private:
    std::unique_ptr<Server> server_;
};

// The console's files as installed beside the program that runs:
// <prefix>/share/nxa/web for <prefix>/bin/<program>.
std::string installedWebRoot();

// Whether `root` holds the console's pages (its index.html).
bool holdsWebPages(std::string const& root);

}  // namespace nxahost
