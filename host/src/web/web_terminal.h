// One terminal of the browser console: a WebSocket served as an in-process
// consumer of the module's output.
#pragma once

#include <nxaclient.h>

#include <cstddef>
#include <string>

struct lws;

namespace nxahost {

// Serves one browser terminal. The module has a consumer of its own for it
// (NXAClient::Module::attachLocal), so the terminal gets what a TCP client
// gets (its recent output first, then everything printed; it shows in the
// module's clients and can be kicked), and the bytes pass unchanged both
// ways: the program's output goes to the browser as binary WebSocket
// messages, whatever the browser sends goes to the program.
//
// Both directions are bounded. Output waiting for a slow browser is held up to
// kToBrowserLimit; beyond that the terminal takes no more from the module, so
// the module treats it as a consumer that falls behind: it keeps only the
// latest output for it and counts the rest as lost. Typing waits while the
// program has kToModuleLimit bytes of input not yet taken; beyond that the
// WebSocket stops being read until it drains. The object owns the consumer
// (detached when the object goes); the WebSocket belongs to the server, which
// ends the object when the WebSocket closes. The facade must outlive it.
class WebTerminal {
public:
    static constexpr std::size_t kToBrowserLimit = 256 * 1024;
    static constexpr std::size_t kToModuleLimit = 64 * 1024;
    // The most one WebSocket message carries.
    static constexpr std::size_t kMessageBytes = 16 * 1024;

    // Attaches the consumer `id` to `module` of `client` for the WebSocket
    // `wsi` opened from `browser` (an address). Throws std::runtime_error when
    // there is no such module or the id is taken.
    WebTerminal(lws* wsi, NXAClient& client, std::string module, std::string id, std::string const& browser);
    // Detaches the consumer, when the module still has it.
    ~WebTerminal();
    WebTerminal(WebTerminal const&) = delete;
    WebTerminal& operator=(WebTerminal const&) = delete;

    std::string const& module() const { return module_; }
    // The consumer's id among the module's clients ("browser:3").
    std::string const& id() const { return id_; }

    // Takes the module's output for the browser and gives the program the
    // typing that waited, as the bounds allow, and asks for the WebSocket's
    // turn to write when output waits. Ends the terminal when the module or
    // its consumer is gone (a reload, a kick). Called on every turn.
    void serve();
    // Takes what the browser sent for the program.
    void typed(char const* bytes, std::size_t length);
    // The WebSocket may write: sends the next message of output. Returns false
    // when the WebSocket is to be closed now (the terminal ended and everything
    // before the end was sent); closeReason() then says why.
    bool writeToBrowser();
    std::string const& closeReason() const { return closeReason_; }

private:
    NXAClient::Module* attachedModule() const;
    void giveTyping(NXAClient::Module& module);
    void end(std::string const& reason);

    lws* const wsi_;
    NXAClient& client_;
    std::string const module_;
    std::string const id_;
    bool ended_ = false;
    std::string toBrowser_;
    std::size_t sent_ = 0;
    std::string toModule_;
    bool receivePaused_ = false;
    std::string closeReason_;
};

}  // namespace nxahost
