#include <nxahost/process_groups.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <thread>

namespace nxahost {

std::set<pid_t> childProcessGroups() {
    std::set<pid_t> groups;
    std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
    pid_t pid;
    while (list >> pid) {
        if (getpgid(pid) == pid) groups.insert(pid);
    }
    return groups;
}

void awaitProcessGroupsGone(std::set<pid_t> const& groups, std::chrono::milliseconds limit) {
    auto const deadline = std::chrono::steady_clock::now() + limit;
    for (pid_t group : groups) {
        // A member that has ended but is not yet reaped still counts: its
        // descriptors are closed by then, but there is no telling it apart.
        while (kill(-group, 0) == 0 || errno == EPERM) {
            if (std::chrono::steady_clock::now() >= deadline) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

}  // namespace nxahost
