// Facts about the machine, and running shell commands.
#include "vlplatform/system.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

unsigned long getTotalRam() {
    struct sysinfo info;
    if (sysinfo(&info) == -1) return 0;
    return info.totalram * info.mem_unit;
}

std::string getMachine() {
    struct utsname names;
    if (uname(&names) == -1) return "noarch";
    std::string machine(names.machine);
    // Only these names are accepted as they are by the manifest check on the machine itself.
    if (machine == "i586" || machine == "i686") return machine;
    return "noarch";
}

namespace {

// Appends everything readable from `fd` up to end of file to `out`.
void readAll(int fd, std::string& out) {
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            return;
        }
    }
}

}  // namespace

int getCmdCallOutput(char const* cmd, std::string& out) {
    // "e": the pipe is not inherited by other children started meanwhile.
    FILE* pipe = popen(cmd, "re");
    if (!pipe) return -1;
    readAll(fileno(pipe), out);
    return pclose(pipe);
}
