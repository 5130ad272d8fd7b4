#include "curl_turn.h"

#include <sys/socket.h>
#include <vlplatform/descriptors.h>

#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace nxahost {

namespace {

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
            throw std::runtime_error("cannot initialise libcurl");
    });
}

}  // namespace

CurlTurn::CurlTurn() {
    initialiseCurlOnce();
    multi_ = curl_multi_init();
    if (multi_ == nullptr) throw std::runtime_error("cannot make a libcurl multi handle");
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlTurn::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlTurn::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
}

CurlTurn::~CurlTurn() {
    for (auto const& transfer : transfers_) curl_multi_remove_handle(multi_, transfer.first);
    curl_multi_cleanup(multi_);
}

void CurlTurn::add(CURL* easy, Done done) {
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlTurn::openSocket);
    curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, this);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlTurn::closeSocket);
    curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
    // Signals are the host's; libcurl's threaded resolver needs none.
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    transfers_[easy] = std::move(done);
    if (curl_multi_add_handle(multi_, easy) != CURLM_OK) {
        transfers_.erase(easy);
        throw std::runtime_error("cannot start a libcurl transfer");
    }
}

void CurlTurn::remove(CURL* easy) {
    if (transfers_.erase(easy) == 0) return;
    curl_multi_remove_handle(multi_, easy);
}

int CurlTurn::addFds(FdSet& rd, FdSet& wr, int timeoutMs) const {
    for (auto const& [fd, what] : sockets_) {
        if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) rd.add(fd);
        if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) wr.add(fd);
    }
    if (!due_) return timeoutMs;
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(*due_ - Clock::now()).count();
    int const ours = static_cast<int>(std::max<long long>(0, left));
    return timeoutMs < 0 ? ours : std::min(timeoutMs, ours);
}

void CurlTurn::serve(FdSet const& rd, FdSet const& wr) {
    // libcurl changes the sockets while it acts on one.
    std::vector<std::pair<curl_socket_t, int>> ready;
    for (auto const& entry : sockets_) {
        int events = 0;
        if (rd.isSet(entry.first)) events |= CURL_CSELECT_IN;
        if (wr.isSet(entry.first)) events |= CURL_CSELECT_OUT;
        if (events != 0) ready.emplace_back(entry.first, events);
    }
    for (auto const& [fd, events] : ready) act(fd, events);
    if (due_ && *due_ <= Clock::now()) {
        due_.reset();
        act(CURL_SOCKET_TIMEOUT, 0);
    }
    reportFinished();
}

void CurlTurn::act(curl_socket_t fd, int events) {
    int running = 0;
    curl_multi_socket_action(multi_, fd, events, &running);
}

void CurlTurn::reportFinished() {
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* const easy = message->easy_handle;
        CURLcode const result = message->data.result;
        auto const found = transfers_.find(easy);
        if (found == transfers_.end()) continue;
        Done done = std::move(found->second);
        transfers_.erase(found);
        curl_multi_remove_handle(multi_, easy);
        done(result);
    }
}

int CurlTurn::onSocket(CURL*, curl_socket_t fd, int what, void* self, void*) {
    auto& turn = *static_cast<CurlTurn*>(self);
    if (what == CURL_POLL_REMOVE) {
        turn.sockets_.erase(fd);
    } else {
        turn.sockets_[fd] = what;
    }
    return 0;
}

int CurlTurn::onTimer(CURLM*, long timeoutMs, void* self) {
    auto& turn = *static_cast<CurlTurn*>(self);
    turn.due_.reset();
    if (timeoutMs >= 0) turn.due_ = Clock::now() + std::chrono::milliseconds(timeoutMs);
    return 0;
}

curl_socket_t CurlTurn::openSocket(void*, curlsocktype, curl_sockaddr* address) {
    int const fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
    if (fd < 0) return CURL_SOCKET_BAD;
    noteDescriptorOpened(fd);
    return fd;
}

int CurlTurn::closeSocket(void* self, curl_socket_t fd) {
    static_cast<CurlTurn*>(self)->sockets_.erase(fd);
    return closeDescriptor(fd);
}

}  // namespace nxahost
