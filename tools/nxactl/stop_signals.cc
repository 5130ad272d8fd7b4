#include "stop_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>
#include <vlplatform/descriptors.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

namespace {

sigset_t stopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

StopSignals::StopSignals() {
    sigset_t const set = stopSet();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) throw std::runtime_error(std::string("cannot watch for signals: ") + std::strerror(errno));
    noteDescriptorOpened(fd_);
}

StopSignals::~StopSignals() {
    closeDescriptor(fd_);
    sigset_t const set = stopSet();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

bool StopSignals::take() {
    bool arrived = false;
    signalfd_siginfo info{};
    while (read(fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) arrived = true;
    return arrived;
}
