#include <nxahost/service_notifier.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace nxahost {

namespace {

// The value of a whole positive decimal number in `text`, or 0.
unsigned long long number(char const* text) {
    if (text == nullptr || *text == '\0') return 0;
    char* end = nullptr;
    unsigned long long value = std::strtoull(text, &end, 10);
    return *end == '\0' ? value : 0;
}

}  // namespace

ServiceNotifier::ServiceNotifier(Clock const& clock) : clock_(clock) {
    char const* socketName = std::getenv("NOTIFY_SOCKET");
    if (socketName == nullptr || (socketName[0] != '/' && socketName[0] != '@')) return;
    address_ = socketName;
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    char const* pid = std::getenv("WATCHDOG_PID");
    unsigned long long const usec = number(std::getenv("WATCHDOG_USEC"));
    if (usec > 0 && (pid == nullptr || number(pid) == static_cast<unsigned long long>(getpid())))
        watchdogEvery_ = std::chrono::microseconds(usec / 2);
    lastWatchdog_ = clock_.now();
    // The module programs are not the service's main process: they must not
    // find the socket (and their messages would be ignored anyway).
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

ServiceNotifier::~ServiceNotifier() {
    if (fd_ >= 0) close(fd_);
}

void ServiceNotifier::ready(std::string const& status) {
    lastStatus_ = status;
    send("READY=1\nSTATUS=" + status);
}

void ServiceNotifier::status(std::string const& status) {
    if (status == lastStatus_) return;
    lastStatus_ = status;
    send("STATUS=" + status);
}

void ServiceNotifier::turned() {
    if (!watchdogEvery_) return;
    Clock::time_point const now = clock_.now();
    if (now - lastWatchdog_ < *watchdogEvery_) return;
    lastWatchdog_ = now;
    send("WATCHDOG=1");
}

std::optional<Clock::time_point> ServiceNotifier::nextWatchdog() const {
    if (!watchdogEvery_) return std::nullopt;
    return lastWatchdog_ + *watchdogEvery_;
}

// The abstract namespace's "@" stands for a leading NUL byte.
void ServiceNotifier::send(std::string const& text) {
    if (fd_ < 0) return;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (address_.size() >= sizeof addr.sun_path) return;
    std::memcpy(addr.sun_path, address_.data(), address_.size());
    if (addr.sun_path[0] == '@') addr.sun_path[0] = '\0';
    socklen_t const length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
    sendto(fd_, text.data(), text.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&addr), length);
}

}  // namespace nxahost
