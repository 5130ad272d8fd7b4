// One terminal of the browser console: a WebSocket relayed to a TCP
// connection the host makes to the module's own port.
#pragma once

#include <vlplatform/fd_set.h>

#include <cstddef>
#include <string>

struct lws;

namespace nxahost {

// Relays one browser terminal. The host connects to the module's port like
// any TCP client, so the module serves the terminal as one (its recent output
// first, then everything printed; it shows in the module's clients) and the
// bytes pass unchanged both ways: the program's output goes to the browser as
// binary WebSocket messages, whatever the browser sends goes to the program.
//
// Both directions are bounded. Output waiting for a slow browser is held up to
// kToBrowserLimit; beyond that the relay stops reading the module's
// connection, so the module treats the terminal as a client that falls
// behind: it keeps only the latest output for it and counts the rest as lost.
// Typing waiting for the module is held up to kToModuleLimit; beyond that the
// WebSocket stops being read until it drains. The object owns the relay
// connection; the WebSocket belongs to the server, which ends the object when
// the WebSocket closes.
class WebTerminal {
public:
    static constexpr std::size_t kToBrowserLimit = 256 * 1024;
    static constexpr std::size_t kToModuleLimit = 64 * 1024;
    // The most one WebSocket message carries.
    static constexpr std::size_t kMessageBytes = 16 * 1024;

    // Starts the relay connection to 127.0.0.1:`port`, the port of `module`,
    // for the WebSocket `wsi`. Throws IOException when no connection can be
    // started.
    WebTerminal(lws* wsi, std::string module, unsigned short port);
    // Closes the relay connection.
    ~WebTerminal();
    WebTerminal(WebTerminal const&) = delete;
    WebTerminal& operator=(WebTerminal const&) = delete;

    std::string const& module() const { return module_; }
    // The relay connection's local address ("127.0.0.1:40000"): the address the
    // module lists for this client.
    std::string const& relayAddress() const { return relayAddress_; }

    // Adds the relay connection to `rd` while there is room for output and to
    // `wr` while typing waits for it.
    void addFds(FdSet& rd, FdSet& wr) const;
    // Moves bytes between the relay connection and the buffers, as the wait
    // found it ready, and asks for the WebSocket's turn to write when output
    // is waiting or the relay ended.
    void serve(FdSet const& rd, FdSet const& wr);
    // Takes what the browser sent for the program.
    void typed(char const* bytes, std::size_t length);
    // The WebSocket may write: sends the next message of output. Returns false
    // when the WebSocket is to be closed now (the relay ended and everything
    // before the end was sent); closeReason() then says why.
    bool writeToBrowser();
    std::string const& closeReason() const { return closeReason_; }

private:
    void readModule();
    void writeModule();
    void end(std::string const& reason);

    lws* const wsi_;
    std::string const module_;
    int fd_ = -1;
    std::string relayAddress_;
    std::string toBrowser_;
    std::size_t sent_ = 0;
    std::string toModule_;
    bool receivePaused_ = false;
    std::string closeReason_;
};

}  // namespace nxahost
