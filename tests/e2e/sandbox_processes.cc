#include "sandbox_processes.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "shell.h"

namespace e2e {

namespace {

std::string exeOf(pid_t pid) {
    char buf[4096];
    ssize_t n = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
}

// Fills state, parent and name from /proc/<pid>/stat; false when it is gone.
bool readStat(ProcessInfo& info) {
    std::string const stat = nxatest::readFile("/proc/" + std::to_string(info.pid) + "/stat");
    std::size_t const open = stat.find('(');
    std::size_t const close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size()) return false;
    info.comm = stat.substr(open + 1, close - open - 1);
    std::istringstream rest(stat.substr(close + 2));
    rest >> info.state >> info.ppid;
    return true;
}

pid_t brokerPid() {
    char const* dir = std::getenv("NXA_SANDBOX_DIR");
    if (!dir) return -1;
    std::string const text = nxatest::readFile(std::string(dir) + "/broker.pid");
    return text.empty() ? -1 : static_cast<pid_t>(std::atol(text.c_str()));
}

}  // namespace

std::string ProcessInfo::text() const {
    return "pid " + std::to_string(pid) + " (" + comm + ") state " + std::string(1, state) + " parent " +
           std::to_string(ppid) + " exe " + exe;
}

std::vector<ProcessInfo> sandboxProcesses() {
    std::vector<ProcessInfo> all;
    DIR* dir = ::opendir("/proc");
    if (!dir) return all;
    while (dirent* e = ::readdir(dir)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        ProcessInfo info;
        info.pid = static_cast<pid_t>(std::atol(e->d_name));
        if (!readStat(info)) continue;
        info.exe = exeOf(info.pid);
        all.push_back(info);
    }
    ::closedir(dir);
    return all;
}

namespace {

std::vector<ProcessInfo> strays() {
    std::vector<ProcessInfo> const all = sandboxProcesses();
    std::set<pid_t> expected{brokerPid()};
    // This test and its ancestors (the sandbox's own shell among them).
    for (pid_t p = ::getpid(); p > 0;) {
        expected.insert(p);
        pid_t parent = 0;
        for (ProcessInfo const& info : all) {
            if (info.pid == p) parent = info.ppid;
        }
        p = parent;
    }
    std::vector<ProcessInfo> found;
    for (ProcessInfo const& info : all) {
        if (!expected.count(info.pid)) found.push_back(info);
    }
    return found;
}

}  // namespace

std::string strayProcesses() {
    std::string stray;
    for (ProcessInfo const& info : strays()) stray += info.text() + "\n";
    return stray;
}

void killStrayProcesses() {
    for (ProcessInfo const& info : strays()) {
        if (info.state != 'Z') ::kill(info.pid, SIGKILL);
    }
}

int liveProcessesRunning(std::string const& exe) {
    int count = 0;
    for (ProcessInfo const& info : sandboxProcesses()) count += info.state != 'Z' && info.exe == exe;
    return count;
}

std::vector<ProcessInfo> childrenOf(pid_t parent) {
    std::vector<ProcessInfo> children;
    for (ProcessInfo const& info : sandboxProcesses()) {
        if (info.ppid == parent && info.state != 'Z') children.push_back(info);
    }
    return children;
}

long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    }
    return -1;
}

}  // namespace e2e
