// A file downloaded over HTTP or HTTPS within the host's turn, resumed where
// it stopped.
#pragma once

#include <vlplatform/fd_set.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backoff.h"
#include "clock.h"

namespace nxahost {

// What to download, to where, and what it must turn out to be.
struct DownloadRequest {
    // http:// or https:// (redirects too); any other scheme is refused.
    std::string url;
    // The file written. What it holds already is kept and only the rest is
    // asked for, with a range request.
    std::string path;
    // The declared size: what would go beyond it is cut there and refused.
    // Unless `sizeIsExact` is false (a bound only), a shorter file is refused.
    std::uint64_t size = 0;
    bool sizeIsExact = true;
    // The whole file's SHA-256, in lowercase hex; empty: not checked.
    std::string sha256;
    // The certificates trusted for https; empty: the system's store. The
    // server's certificate and host name are always checked.
    std::string caFile;
};

// One download that never blocks the loop that drives it: addFds puts what it
// waits on in the turn's sets, serve moves it on. While the server cannot be
// reached (no connection, the connection lost, no data for 30 s, an HTTP 5xx,
// 408 or 429 answer) it tries again after Backoff's delays, from where it was.
// It ends done when the file has the declared size and SHA-256, or failed
// with the reason: any other HTTP answer of 400 or more, an untrusted
// certificate, a scheme other than http(s), a file larger or shorter than
// declared, another SHA-256. A failed download's file is removed: nothing of
// it is resumed.
class Download {
public:
    enum class State { running, waiting, done, failed };

    // Starts at once; times and delays from `clock` and `jitter`, which must
    // outlive it. Throws std::runtime_error when `path` cannot be opened.
    Download(DownloadRequest request, Clock const& clock, Jitter& jitter);
    ~Download();
    Download(Download const&) = delete;
    Download& operator=(Download const&) = delete;

    // Adds the descriptors it waits on; returns the smaller of `timeoutMs` and
    // the time until it has something to do by the clock (negative: none).
    int addFds(FdSet& rd, FdSet& wr, int timeoutMs) const;
    // Serves what is ready in the sets filled by the wait, and an attempt
    // that fell due.
    void serve(FdSet const& rd, FdSet const& wr);

    State state() const { return state_; }
    // Bytes of the file in `path` so far.
    std::uint64_t received() const { return received_; }
    // Why it failed, or while waiting why the last attempt did not finish.
    std::string const& reason() const { return reason_; }
    // Attempts made so far (the first one included).
    int attempts() const { return attempts_; }
    // When the next attempt starts, while waiting.
    std::optional<Clock::time_point> retryAt() const { return retryAt_; }
    DownloadRequest const& request() const { return request_; }

private:
    struct Transfer;

    static std::size_t onData(char* data, std::size_t one, std::size_t count, void* self);
    void openFile();
    void beginAgain();
    void attempt();
    void configure();
    std::size_t take(char const* data, std::size_t count);
    void finished(int curlResult);
    void checkWhole();
    std::string sha256() const;
    bool hashMatches() const;
    void retryLater(std::string reason);
    void fail(std::string reason);
    void done();

    DownloadRequest request_;
    Clock const& clock_;
    Jitter& jitter_;
    Backoff backoff_;
    std::unique_ptr<Transfer> transfer_;
    State state_ = State::running;
    std::uint64_t received_ = 0;
    std::string reason_;
    int attempts_ = 0;
    std::optional<Clock::time_point> retryAt_;
};

}  // namespace nxahost
