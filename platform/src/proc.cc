// Forking, stopping and reaping the children of one parent.
#include "vlplatform/proc.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

namespace {

// Reaps `pid` if it has ended (or blocks until it does, with `block`). True when
// it is gone: reaped now, or no longer a child of ours at all.
bool reap(pid_t pid, bool block) {
    for (;;) {
        int status;
        pid_t r = waitpid(pid, &status, block ? 0 : WNOHANG);
        if (r == pid) return true;
        if (r == 0) return false;
        if (errno == EINTR) continue;
        return errno == ECHILD;
    }
}

// Signals the child and the process group it leads (when it has made one yet).
void signalChild(pid_t pid, int sig) {
    kill(-pid, sig);
    kill(pid, sig);
}

// Waits up to `graceMs` for `pid` to end, polling; true when it was reaped.
bool reapWithin(pid_t pid, int graceMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(graceMs);
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        if (reap(pid, false)) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
}

}  // namespace

Proc::Proc(pid_t self) : self_(self) {}

pid_t Proc::fork() {
    pid_t pid = ::fork();
    if (pid > 0) {
        children_.insert(pid);
    } else if (pid == 0) {
        // The parent's children are not the child's: forget them, so that a
        // stop() in the child's copy of the owner can never signal them.
        children_.clear();
    }
    return pid;
}

void Proc::stop(pid_t pid) {
    if (pid <= 0 || children_.count(pid) == 0) return;
    // Until it is reaped, a child's id (and the id of the group it leads) cannot
    // be reused, so the signals reach only the child and its group, even when
    // the child has already ended and only others of its group are left.
    signalChild(pid, SIGTERM);
    if (!reapWithin(pid, stopGraceMs)) {
        signalChild(pid, SIGKILL);
        reap(pid, true);
    }
    children_.erase(pid);
}

void Proc::stopAll() {
    for (pid_t pid : children_) signalChild(pid, SIGTERM);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(stopGraceMs);
    auto pause = std::chrono::milliseconds(1);
    for (;;) {
        waitChildren(false, nullptr);
        if (children_.empty() || std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(20));
    }
    for (pid_t pid : children_) signalChild(pid, SIGKILL);
    waitChildren(true, nullptr);
}

void Proc::signal(pid_t pid, int sig) {
    if (pid <= 0 || children_.count(pid) == 0) return;
    signalChild(pid, sig);
}

bool Proc::collect(pid_t pid) {
    if (pid <= 0 || children_.count(pid) == 0) return true;
    if (!reap(pid, false)) return false;
    children_.erase(pid);
    return true;
}

void Proc::waitChildren(bool wait, std::set<int>* ended) {
    for (auto it = children_.begin(); it != children_.end();) {
        pid_t pid = *it;
        if (!reap(pid, wait)) {
            ++it;
            continue;
        }
        if (ended) ended->insert(pid);
        it = children_.erase(it);
    }
}
