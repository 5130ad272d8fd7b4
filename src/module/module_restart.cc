// NXAClient::Module: starting the program again for a host that runs
// unattended, at once (restart) or in steps that never wait (endProgram,
// killProgram, reapProgram, startProgram), and what is left of the old one
// (its output on the way, its typed input).
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>

#include <stdexcept>

#include "nxaclient.h"

void NXAClient::Module::restart() {
    noteChanged();
    if (childpid != -1) {
        proc.stop(childpid);
        childpid = -1;
    }
    closeTerminal();
    bufConn2Child.clear();
    openTerminal();
    run();
    announceOnBus();
}

void NXAClient::Module::endProgram() {
    noteChanged();
    if (childpid != -1) proc.signal(childpid, SIGTERM);
}

void NXAClient::Module::killProgram() {
    noteChanged();
    if (childpid != -1) proc.signal(childpid, SIGKILL);
}

bool NXAClient::Module::reapProgram() {
    noteChanged();
    if (childpid == -1) return true;
    if (!proc.collect(childpid)) return false;
    childpid = -1;
    return true;
}

void NXAClient::Module::startProgram() {
    if (childpid != -1) throw std::logic_error("the program still runs");
    noteChanged();
    closeTerminal();
    dropTypedInput();
    openTerminal();
    run();
    announceOnBus();
}

std::size_t NXAClient::Module::dropTypedInput() {
    noteChanged();
    std::size_t const dropped = bufConn2Child.size();
    // A swap, not clear(): the string's capacity goes too.
    std::string().swap(bufConn2Child);
    return dropped;
}

std::size_t NXAClient::Module::pendingOutput() const {
    if (master < 0) return 0;
    // The terminal layer hands what the program wrote on to the master's side
    // a little later, from a worker of its own: a program that has just ended
    // may have output on the way that FIONREAD does not count yet. A poll
    // waits for that hand-over first.
    pollfd ready{master, POLLIN, 0};
    (void)::poll(&ready, 1, 0);
    int waiting = 0;
    if (::ioctl(master, FIONREAD, &waiting) != 0 || waiting < 0) return 0;
    return static_cast<std::size_t>(waiting);
}
