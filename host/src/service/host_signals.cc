#include <fcntl.h>
#include <nxahost/host_signals.h>
#include <pthread.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>

namespace nxahost {

namespace {

int wakeFd = -1;
volatile sig_atomic_t pending[4];

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD};

int slotOf(int signal) {
    switch (signal) {
        case SIGINT:
        case SIGTERM:
            return 0;
        case SIGHUP:
            return 1;
        case SIGUSR1:
            return 2;
        default:
            return 3;
    }
}

void onSignal(int signal) {
    int saved = errno;
    pending[slotOf(signal)] = 1;
    char byte = 1;
    // A full pipe already wakes the loop; the flag above keeps the event.
    ssize_t ignored = write(wakeFd, &byte, 1);
    (void)ignored;
    errno = saved;
}

void resetInChild() {
    for (int signal : kSignals) std::signal(signal, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
}

void install(int signal) {
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = signal == SIGCHLD ? SA_NOCLDSTOP : 0;
    if (sigaction(signal, &action, nullptr) != 0) throw IOException(errno, "cannot install signal handler");
}

}  // namespace

HostSignals::HostSignals() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) throw IOException(errno, "cannot create signal pipe");
    readEnd_ = ends[0];
    wakeFd = ends[1];
    static bool atforkRegistered = false;
    if (!atforkRegistered) {
        pthread_atfork(nullptr, nullptr, resetInChild);
        atforkRegistered = true;
    }
    std::signal(SIGPIPE, SIG_IGN);
    for (int signal : kSignals) install(signal);
}

HostSignals::~HostSignals() {
    for (int signal : kSignals) std::signal(signal, SIG_DFL);
    close(readEnd_);
    close(wakeFd);
    wakeFd = -1;
}

unsigned HostSignals::take() {
    char buf[64];
    while (read(readEnd_, buf, sizeof buf) > 0) {
    }
    unsigned events = 0;
    Event const slots[] = {kStop, kReload, kDumpLog, kChildEnded};
    for (int i = 0; i < 4; ++i) {
        if (pending[i]) {
            pending[i] = 0;
            events |= slots[i];
        }
    }
    return events;
}

}  // namespace nxahost
