// The browser console's HTTP requests: the pages and their files, the status
// as JSON, restarting a module.
#include <libwebsockets.h>
#include <nxahost/log.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "web_request.h"
#include "web_server.h"

namespace nxahost {
namespace {

// Where Debian's node-xterm and libjs-xterm put the terminal library: its
// modules, and its style sheet.
constexpr char kTerminalLibrary[] = "/usr/share/nodejs/xterm/lib/";
constexpr char kTerminalStyle[] = "/usr/share/javascript/xterm/xterm.css";
// The most of a reply written at once.
constexpr std::size_t kReplyChunk = 16 * 1024;

struct ConsoleFile {
    char const* path;
    char const* file;
    char const* type;
};

ConsoleFile const kConsoleFiles[] = {
    {"/", "index.html", "text/html"},
    {"/index.html", "index.html", "text/html"},
    {"/console.css", "console.css", "text/css"},
    {"/status.js", "status.js", "application/javascript"},
    {"/terminal.js", "terminal.js", "application/javascript"},
    {"/modules.js", "modules.js", "application/javascript"},
};

ConsoleFile const* consoleFile(std::string const& path) {
    for (ConsoleFile const& f : kConsoleFiles) {
        if (path == f.path) return &f;
    }
    return nullptr;
}

// "/xterm/lib/NAME.js": the terminal library's module NAME.
std::string libraryModule(std::string const& path) {
    std::string const prefix = "/xterm/lib/";
    if (path.size() <= prefix.size() + 3 || path.compare(0, prefix.size(), prefix) != 0 ||
        path.compare(path.size() - 3, 3, ".js") != 0)
        return {};
    std::string const name = path.substr(prefix.size());
    return safeLibraryPath(name) ? name : std::string();
}

bool hasBody(lws* wsi) {
    std::string const length = requestHeader(wsi, WSI_TOKEN_HTTP_CONTENT_LENGTH);
    return !length.empty() && std::strtoull(length.c_str(), nullptr, 10) > 0;
}

}  // namespace

int WebConsole::Server::onRequest(lws* wsi, std::string const& path) {
    if (overLimit())
        return replyError(wsi, HTTP_STATUS_SERVICE_UNAVAILABLE,
                          "too many browser connections: at most " + std::to_string(kMaxConnections));
    if (!trustedHost(wsi)) return replyError(wsi, HTTP_STATUS_FORBIDDEN, "open the console by its address");
    if (lws_hdr_total_length(wsi, WSI_TOKEN_POST_URI) > 0) {
        std::optional<std::string> const module = moduleInPath(path, "/restart");
        if (!module) return replyError(wsi, HTTP_STATUS_NOT_FOUND, "nothing to post to here");
        if (!sameOrigin(wsi)) return replyError(wsi, HTTP_STATUS_FORBIDDEN, "a page of another site");
        if (!hasBody(wsi)) return restart(wsi, *module);
        connection(wsi)->restartAfterBody = *module;
        return 0;
    }
    if (lws_hdr_total_length(wsi, WSI_TOKEN_GET_URI) <= 0)
        return replyError(wsi, HTTP_STATUS_METHOD_NOT_ALLOWED, "only GET and POST");
    return onGet(wsi, path);
}

int WebConsole::Server::onGet(lws* wsi, std::string const& path) {
    if (path == "/status.json")
        return reply(wsi, HTTP_STATUS_OK, "application/json",
                     hooks_.status().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    if (ConsoleFile const* file = consoleFile(path))
        return serveFile(wsi, setup_.root + "/" + file->file, file->type);
    if (path == "/xterm/xterm.css") return serveFile(wsi, kTerminalStyle, "text/css");
    std::string const library = libraryModule(path);
    if (!library.empty()) return serveFile(wsi, kTerminalLibrary + library, "application/javascript");
    std::optional<std::string> const module = moduleInPath(path, "");
    if (module && client_.modules.find(*module) != nullptr)
        return serveFile(wsi, setup_.root + "/terminal.html", "text/html");
    return replyError(wsi, HTTP_STATUS_NOT_FOUND, "not found");
}

int WebConsole::Server::onBodyComplete(lws* wsi) {
    Connection* const c = connection(wsi);
    if (!c->restartAfterBody) return 0;
    std::string const module = *c->restartAfterBody;
    c->restartAfterBody.reset();
    return restart(wsi, module);
}

int WebConsole::Server::onHttpWritable(lws* wsi) {
    Connection* const c = connection(wsi);
    return c->restartOutcome ? replyRestarted(wsi, *c) : writeReply(wsi, *c);
}

// The answer goes out once the new program runs: it confirms the restart.
int WebConsole::Server::restart(lws* wsi, std::string const& module) {
    unsigned long const serial = ++restartSerial_;
    // Set first: a program that has ended already starts again within the call.
    connection(wsi)->awaitedRestart = serial;
    bool const known = hooks_.restart(module, [this, wsi, serial, module](std::string const& error) {
        restartDone(wsi, serial, module, error);
    });
    if (known) return 0;
    connection(wsi)->awaitedRestart = 0;
    return replyError(wsi, HTTP_STATUS_NOT_FOUND, "no module named " + module);
}

void WebConsole::Server::restartDone(lws* wsi, unsigned long serial, std::string const& module,
                                     std::string const& error) {
    auto const found = connections_.find(wsi);
    if (found == connections_.end() || found->second.awaitedRestart != serial) return;
    found->second.awaitedRestart = 0;
    found->second.restartOutcome = std::make_pair(module, error);
    lws_callback_on_writable(wsi);
}

int WebConsole::Server::replyRestarted(lws* wsi, Connection& c) {
    auto const [module, error] = *c.restartOutcome;
    c.restartOutcome.reset();
    if (!error.empty()) return replyError(wsi, HTTP_STATUS_INTERNAL_SERVER_ERROR, error);
    hostLog(kHostInfo, "module ", module, " restarted from the browser console");
    return reply(wsi, HTTP_STATUS_OK, "application/json", nlohmann::json{{"ok", true}}.dump());
}

int WebConsole::Server::serveFile(lws* wsi, std::string const& path, char const* type) {
    int const served = lws_serve_http_file(wsi, path.c_str(), type, nullptr, 0);
    if (served < 0 || (served > 0 && lws_http_transaction_completed(wsi))) return -1;
    return 0;
}

int WebConsole::Server::replyError(lws* wsi, unsigned status, std::string const& text) {
    nlohmann::json const body{{"ok", false}, {"error", text}};
    return reply(wsi, status, "application/json",
                 body.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

// The headers now, the body in writeReply when the connection may write.
int WebConsole::Server::reply(lws* wsi, unsigned status, std::string const& type, std::string body) {
    unsigned char headers[LWS_PRE + 1024];
    unsigned char* start = headers + LWS_PRE;
    unsigned char* p = start;
    unsigned char* end = headers + sizeof headers - 1;
    static char const kNoStore[] = "no-store";
    if (lws_add_http_common_headers(wsi, status, type.c_str(), body.size(), &p, end) ||
        lws_add_http_header_by_token(wsi, WSI_TOKEN_HTTP_CACHE_CONTROL,
                                     reinterpret_cast<unsigned char const*>(kNoStore), sizeof kNoStore - 1,
                                     &p, end) ||
        lws_finalize_write_http_header(wsi, start, &p, end))
        return -1;
    connection(wsi)->reply = std::move(body);
    lws_callback_on_writable(wsi);
    return 0;
}

int WebConsole::Server::writeReply(lws* wsi, Connection& c) {
    if (!c.reply) return 0;
    std::string& body = *c.reply;
    std::size_t const length = std::min(body.size(), kReplyChunk);
    bool const last = length == body.size();
    std::vector<unsigned char> chunk(LWS_PRE + length);
    std::memcpy(chunk.data() + LWS_PRE, body.data(), length);
    if (lws_write(wsi, chunk.data() + LWS_PRE, length, last ? LWS_WRITE_HTTP_FINAL : LWS_WRITE_HTTP) !=
        static_cast<int>(length))
        return -1;
    body.erase(0, length);
    if (!last) {
        lws_callback_on_writable(wsi);
        return 0;
    }
    c.reply.reset();
    return lws_http_transaction_completed(wsi) ? -1 : 0;
}

}  // namespace nxahost
