#include "web_terminal.h"

#include <libwebsockets.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace nxahost {

WebTerminal::WebTerminal(lws* wsi, NXAClient& client, std::string module, std::string id,
                         std::string const& browser)
    : wsi_(wsi), client_(client), module_(std::move(module)), id_(std::move(id)) {
    NXAClient::Module* found = client_.modules.find(module_);
    if (found == nullptr) throw std::runtime_error("no module named " + module_);
    if (!found->attachLocal(id_, browser)) throw std::runtime_error(id_ + " is attached already");
}

WebTerminal::~WebTerminal() {
    if (NXAClient::Module* module = attachedModule()) module->detach(id_);
}

NXAClient::Module* WebTerminal::attachedModule() const {
    NXAClient::Module* module = client_.modules.find(module_);
    return module != nullptr && module->hasConsumer(id_) ? module : nullptr;
}

void WebTerminal::serve() {
    if (ended_) return;
    NXAClient::Module* module = attachedModule();
    if (module == nullptr) {
        end("the module closed the connection");
        return;
    }
    giveTyping(*module);
    std::size_t const room = kToBrowserLimit - (toBrowser_.size() - sent_);
    if (room > 0 && module->takeLocalOutput(id_, toBrowser_, room) > 0) lws_callback_on_writable(wsi_);
}

// What waited for the program goes to it once its input has room.
void WebTerminal::giveTyping(NXAClient::Module& module) {
    if (toModule_.empty() || module.typedInputWaiting() >= kToModuleLimit) return;
    module.typeLocalInput(id_, toModule_);
    toModule_.clear();
    if (receivePaused_) {
        receivePaused_ = false;
        lws_rx_flow_control(wsi_, 1);
    }
}

void WebTerminal::typed(char const* bytes, std::size_t length) {
    if (ended_) return;
    toModule_.append(bytes, length);
    if (NXAClient::Module* module = attachedModule()) giveTyping(*module);
    if (!receivePaused_ && toModule_.size() >= kToModuleLimit) {
        receivePaused_ = true;
        lws_rx_flow_control(wsi_, 0);
    }
}

// The output taken before the end still goes to the browser; then it closes.
void WebTerminal::end(std::string const& reason) {
    ended_ = true;
    toModule_.clear();
    closeReason_ = reason;
    lws_callback_on_writable(wsi_);
}

bool WebTerminal::writeToBrowser() {
    std::size_t const waiting = toBrowser_.size() - sent_;
    if (waiting == 0) return !ended_;
    std::size_t const length = std::min(waiting, kMessageBytes);
    std::vector<unsigned char> message(LWS_PRE + length);
    std::memcpy(message.data() + LWS_PRE, toBrowser_.data() + sent_, length);
    if (lws_write(wsi_, message.data() + LWS_PRE, length, LWS_WRITE_BINARY) < static_cast<int>(length)) {
        closeReason_ = "the browser's connection failed";
        return false;
    }
    sent_ += length;
    if (sent_ == toBrowser_.size()) {
        toBrowser_.clear();
        sent_ = 0;
    } else if (sent_ >= kToBrowserLimit / 2) {
        toBrowser_.erase(0, sent_);
        sent_ = 0;
    }
    if (toBrowser_.size() > sent_ || ended_) lws_callback_on_writable(wsi_);
    return true;
}

}  // namespace nxahost
