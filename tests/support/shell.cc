#include "shell.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vlplatform/net.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace nxatest {

ShellResult shell(std::string const& command) {
    ShellResult result{-1, {}};
    std::string full = "(" + command + ") 2>&1";
    FILE* pipe = popen(full.c_str(), "r");
    if (!pipe) return result;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) result.output.append(buf, n);
    int status = pclose(pipe);
    if (status == -1) return result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

bool waitUntil(std::function<bool()> const& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

namespace {

// The epoll instance a thread's waitFds keeps for its life.
bool isInterestSet(char const* name) {
    char target[64] = {};
    std::string path = std::string("/proc/self/fd/") + name;
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return n > 0 && std::string(target, static_cast<std::size_t>(n)) == "anon_inode:[eventpoll]";
}

}  // namespace

int openDescriptorCount() {
    // The platform's own descriptors, each made once for the process or the
    // thread, are not counted: the accept reserve is filled here first.
    setAsideAcceptReserve();
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return -1;
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] != '.' && !isInterestSet(e->d_name)) ++count;
    }
    closedir(dir);
    return count - 1 - static_cast<int>(acceptReserveSize);  // the directory stream's own, and the reserve
}

void writeFile(std::string const& path, std::string const& content, int mode) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
    }
    chmod(path.c_str(), static_cast<mode_t>(mode));
}

std::string readFile(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream os;
    os << in.rdbuf();
    return os.str();
}

}  // namespace nxatest
