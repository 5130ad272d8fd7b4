// The processes of the sandbox, read from /proc, to show what a host leaves
// behind.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace e2e {

struct ProcessInfo {
    pid_t pid = 0;
    pid_t ppid = 0;
    char state = '?';          // R, S, Z, ...
    std::string comm;          // the kernel's short name
    std::string exe;           // the running program's path; empty for a zombie
    std::string text() const;  // "pid <p> (<comm>) state <s> parent <pp> exe <exe>"
};

// Every process visible in /proc (the sandbox's own pid namespace).
std::vector<ProcessInfo> sandboxProcesses();

// The processes other than this test, its ancestors (the sandbox's own) and
// the sandbox's broker: what a host or its modules left behind, zombies
// included. Each as ProcessInfo::text(), one per line; empty when none.
std::string strayProcesses();

// Kills every stray process with SIGKILL, as a service manager does with
// what is left of a service whose main process died.
void killStrayProcesses();

// How many live (not zombie) processes run the program `exe`.
int liveProcessesRunning(std::string const& exe);

// The live children of `parent`.
std::vector<ProcessInfo> childrenOf(pid_t parent);

// The resident memory of process `pid` in KiB (VmRSS); -1 when unknown.
long residentKiB(pid_t pid);

}  // namespace e2e
