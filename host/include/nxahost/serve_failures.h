// What the host does with an exception from serving its modules.
#pragma once

#include <chrono>
#include <exception>
#include <string>

namespace nxahost {

// Serving goes on through failures. A client's fault (a connection reset,
// timed out or gone: the library reports it as failing to read or write
// "telnet:N", or as end of stream on it) is not counted here: see
// dropLostClient. Any other error is an ERROR line; when the same text comes back turn after turn it is
// written once and then counted, at most a line a second. Only errors on every
// turn for kGiveUpAfter, without one turn served in between, end the host.
class ServeFailures {
public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kGiveUpAfter{10};

    // A turn served without an exception: any run of failures is over.
    void served(Clock::time_point now);

    // Reports `e`, thrown by this turn's serving. Returns true when the host
    // must give up (after writing a line that says so).
    bool failed(std::exception const& e, Clock::time_point now);

private:
    void reportRepeats(Clock::time_point now, bool last);

    bool failing_ = false;
    Clock::time_point firstFailure_;
    std::string lastError_;
    unsigned long repeats_ = 0;
    Clock::time_point repeatsSince_;
};

// Whether the library's text `what` is a client's fault (see ServeFailures),
// and which client: its peer id.
bool isClientFault(std::string const& what, std::string& peer);

}  // namespace nxahost
