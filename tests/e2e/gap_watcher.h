// A TCP client that measures how long a module's output keeps it waiting.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

namespace e2e {

// Connects to 127.0.0.1:<port> and reads in a thread of its own, noting the
// longest wait between two arrivals of bytes. A module that prints every
// 50 ms keeps the gaps near 50 ms while the host serves it.
class GapWatcher {
public:
    explicit GapWatcher(unsigned port);
    // Stops reading and closes the connection.
    ~GapWatcher();
    GapWatcher(GapWatcher const&) = delete;
    GapWatcher& operator=(GapWatcher const&) = delete;

    // Waits until `text` has arrived (false after `timeout`).
    bool waitFor(std::string const& text, std::chrono::milliseconds timeout);
    // Starts a new window: the longest gap is measured from now on.
    void startWindow();
    // The longest gap in the window so far, in seconds, counting the gap
    // still open now.
    double longestGap();
    // How many bytes have arrived.
    std::size_t received();

private:
    void read();

    int fd_ = -1;
    std::mutex mutex_;
    std::chrono::steady_clock::time_point last_;
    double longest_ = 0;
    std::string text_;
    std::atomic<bool> stop_{false};
    std::thread reader_;
};

}  // namespace e2e
