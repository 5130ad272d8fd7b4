#include "web_terminal.h"

#include <arpa/inet.h>
#include <libwebsockets.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/net.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

namespace nxahost {

namespace {

// The most read from the relay connection in one turn.
constexpr std::size_t kReadBytes = 64 * 1024;

std::string localAddress(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    std::ostringstream text;
    text << address;
    return text.str();
}

}  // namespace

WebTerminal::WebTerminal(lws* wsi, std::string module, unsigned short port)
    : wsi_(wsi), module_(std::move(module)) {
    sockaddr_in address{};
    setInetAddr("127.0.0.1", port, address);
    fd_ = connectClient(address);
    if (fd_ < 0) throw IOException(errno, "cannot connect to 127.0.0.1:" + std::to_string(port));
    relayAddress_ = localAddress(fd_);
}

WebTerminal::~WebTerminal() {
    if (fd_ >= 0) closeDescriptor(fd_);
}

void WebTerminal::addFds(FdSet& rd, FdSet& wr) const {
    if (fd_ < 0) return;
    if (toBrowser_.size() - sent_ < kToBrowserLimit) rd.add(fd_);
    if (!toModule_.empty()) wr.add(fd_);
}

void WebTerminal::serve(FdSet const& rd, FdSet const& wr) {
    if (fd_ >= 0 && rd.isSet(fd_)) readModule();
    if (fd_ >= 0 && wr.isSet(fd_)) writeModule();
}

void WebTerminal::readModule() {
    std::size_t const room = kToBrowserLimit - (toBrowser_.size() - sent_);
    if (room == 0) return;
    char buffer[kReadBytes];
    ssize_t const n = read(fd_, buffer, std::min(room, sizeof buffer));
    if (n > 0) {
        toBrowser_.append(buffer, static_cast<std::size_t>(n));
        lws_callback_on_writable(wsi_);
    } else if (n == 0) {
        end("the module closed the connection");
    } else if (errno != EAGAIN && errno != EINTR) {
        end(std::string("the connection to the module failed: ") + std::strerror(errno));
    }
}

void WebTerminal::writeModule() {
    ssize_t const n = send(fd_, toModule_.data(), toModule_.size(), MSG_NOSIGNAL);
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR)
            end(std::string("the connection to the module failed: ") + std::strerror(errno));
        return;
    }
    toModule_.erase(0, static_cast<std::size_t>(n));
    if (receivePaused_ && toModule_.size() < kToModuleLimit) {
        receivePaused_ = false;
        lws_rx_flow_control(wsi_, 1);
    }
}

void WebTerminal::typed(char const* bytes, std::size_t length) {
    if (fd_ < 0) return;
    toModule_.append(bytes, length);
    if (!receivePaused_ && toModule_.size() >= kToModuleLimit) {
        receivePaused_ = true;
        lws_rx_flow_control(wsi_, 0);
    }
}

// The output read before the end still goes to the browser; then it closes.
void WebTerminal::end(std::string const& reason) {
    closeDescriptor(fd_);
    fd_ = -1;
    toModule_.clear();
    closeReason_ = reason;
    lws_callback_on_writable(wsi_);
}

bool WebTerminal::writeToBrowser() {
    std::size_t const waiting = toBrowser_.size() - sent_;
    if (waiting == 0) return fd_ >= 0;
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
    if (toBrowser_.size() > sent_ || fd_ < 0) lws_callback_on_writable(wsi_);
    return true;
}

}  // namespace nxahost
