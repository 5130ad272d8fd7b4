#include "ended_children.h"

#include <fstream>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "host_log.h"

namespace {

std::set<pid_t> currentChildren() {
    std::set<pid_t> children;
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    pid_t pid;
    while (list >> pid) children.insert(pid);
    return children;
}

std::string programName(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

// How the child ended, read without reaping it; empty while it runs.
std::string endingOf(pid_t pid) {
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == 0) {
        return {};
    }
    if (info.si_code == CLD_EXITED) return "exit status " + std::to_string(info.si_status);
    return "signal " + std::to_string(info.si_status);
}

}  // namespace

void EndedChildren::report() {
    std::set<pid_t> const children = currentChildren();
    for (auto it = reported_.begin(); it != reported_.end();) {
        it = children.count(*it) ? std::next(it) : reported_.erase(it);
    }
    for (pid_t pid : children) {
        if (reported_.count(pid)) continue;
        std::string const ending = endingOf(pid);
        if (ending.empty()) continue;
        reported_.insert(pid);
        hostLog(kHostWarning, "module program ", programName(pid), " (pid ", pid, ") has ended: ", ending);
    }
}
