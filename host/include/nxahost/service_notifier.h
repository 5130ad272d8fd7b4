// Telling the service manager how the host is doing, with its datagram
// protocol: READY=1 once every module serves, STATUS= lines, and WATCHDOG=1
// while the loop turns. Nothing at all when NOTIFY_SOCKET is not set.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "clock.h"

namespace nxahost {

// The service manager's messages for one service, the host. Takes the three
// variables out of the environment, so that the programs the host starts do
// not find them. Time comes from `clock`, which must outlive the notifier.
class ServiceNotifier {
public:
    // Reads NOTIFY_SOCKET (a path, or "@name" in the abstract namespace) and
    // WATCHDOG_USEC (taken only when WATCHDOG_PID is unset or this process).
    explicit ServiceNotifier(Clock const& clock);
    ~ServiceNotifier();
    ServiceNotifier(ServiceNotifier const&) = delete;
    ServiceNotifier& operator=(ServiceNotifier const&) = delete;

    // Every module serves: READY=1 with the status.
    void ready(std::string const& status);
    // A new STATUS= line, when it differs from the last one sent.
    void status(std::string const& status);
    // Called on every turn: WATCHDOG=1 when half the watchdog interval has
    // passed since the last one.
    void turned();
    // When the loop must turn at the latest for the watchdog; none without one.
    std::optional<Clock::time_point> nextWatchdog() const;

private:
    void send(std::string const& text);

    Clock const& clock_;
    int fd_ = -1;
    std::string address_;
    std::optional<std::chrono::microseconds> watchdogEvery_;
    Clock::time_point lastWatchdog_;
    std::string lastStatus_;
};

}  // namespace nxahost
