// libcurl's multi interface driven from a select-style loop's turn.
#pragma once

#include <curl/curl.h>
#include <vlplatform/fd_set.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>

namespace nxahost {

// Transfers that never block the loop that drives them: addFds puts the
// sockets libcurl waits on, and its time-out, in the turn's sets; serve hands
// libcurl what became ready and what fell due, and reports each finished
// transfer to its `done` callback. Sockets are opened close-on-exec (module
// programs do not inherit them) and recorded for the loop's wait
// (vlplatform/descriptors.h).
class CurlTurn {
public:
    using Done = std::function<void(CURLcode result)>;

    CurlTurn();
    ~CurlTurn();
    CurlTurn(CurlTurn const&) = delete;
    CurlTurn& operator=(CurlTurn const&) = delete;

    // Starts `easy` (configured, not yet started); `done` is told its result
    // once, from serve. The handle stays the caller's: remove() it before
    // cleaning it up.
    void add(CURL* easy, Done done);
    // Stops `easy` if it is running; its `done` is not called.
    void remove(CURL* easy);
    // Adds libcurl's sockets; returns the smaller of `timeoutMs` and the time
    // until libcurl's time-out (negative: none).
    int addFds(FdSet& rd, FdSet& wr, int timeoutMs) const;
    // Serves the sockets ready in `rd`/`wr` and a time-out that fell due.
    void serve(FdSet const& rd, FdSet const& wr);

private:
    using Clock = std::chrono::steady_clock;

    static int onSocket(CURL* easy, curl_socket_t fd, int what, void* self, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* self);
    static curl_socket_t openSocket(void* self, curlsocktype purpose, curl_sockaddr* address);
    static int closeSocket(void* self, curl_socket_t fd);
    void act(curl_socket_t fd, int events);
    void reportFinished();

    CURLM* multi_;
    // The sockets libcurl waits on, with what for (CURL_POLL_IN, _OUT, _INOUT).
    std::map<curl_socket_t, int> sockets_;
    std::optional<Clock::time_point> due_;
    std::map<CURL*, Done> transfers_;
};

}  // namespace nxahost
