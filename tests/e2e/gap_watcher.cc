#include "gap_watcher.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "shell.h"

namespace e2e {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

}  // namespace

GapWatcher::GapWatcher(unsigned port) : last_(Clock::now()) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        ADD_FAILURE() << "cannot connect to port " << port << ": " << std::strerror(errno);
    reader_ = std::thread([this] { read(); });
}

GapWatcher::~GapWatcher() {
    stop_ = true;
    reader_.join();
    ::close(fd_);
}

void GapWatcher::read() {
    char buffer[4096];
    while (!stop_) {
        pollfd ready{fd_, POLLIN, 0};
        if (::poll(&ready, 1, 20) <= 0) continue;
        ssize_t const n = ::recv(fd_, buffer, sizeof buffer, 0);
        if (n <= 0) return;
        std::lock_guard<std::mutex> lock(mutex_);
        longest_ = std::max(longest_, secondsSince(last_));
        last_ = Clock::now();
        text_.append(buffer, static_cast<std::size_t>(n));
    }
}

bool GapWatcher::waitFor(std::string const& text, std::chrono::milliseconds timeout) {
    return nxatest::waitUntil(
        [&] {
            std::lock_guard<std::mutex> lock(mutex_);
            return text_.find(text) != std::string::npos;
        },
        timeout);
}

void GapWatcher::startWindow() {
    std::lock_guard<std::mutex> lock(mutex_);
    longest_ = 0;
}

double GapWatcher::longestGap() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::max(longest_, secondsSince(last_));
}

std::size_t GapWatcher::received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return text_.size();
}

}  // namespace e2e
