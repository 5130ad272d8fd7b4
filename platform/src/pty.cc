// Pseudo-terminal pairs.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "vlplatform/descriptors.h"
#include "vlplatform/net.h"

namespace {

// Opens the slave side of `master` read-write, without making it the
// controlling terminal; -1 with errno on failure.
int openSlave(int master) {
    if (grantpt(master) == -1 || unlockpt(master) == -1) return -1;
    char name[PATH_MAX];
    int rc = ptsname_r(master, name, sizeof name);
    if (rc != 0) {
        errno = rc;
        return -1;
    }
    return open(name, O_RDWR | O_NOCTTY);
}

// Raw mode on the terminal behind `fd`: no echo, no line editing, no output
// processing, no signals from keys.
int makeRaw(int fd) {
    termios attrs;
    if (tcgetattr(fd, &attrs) == -1) return -1;
    cfmakeraw(&attrs);
    return tcsetattr(fd, TCSANOW, &attrs);
}

void closeKeepingErrno(int fd) {
    int err = errno;
    close(fd);
    errno = err;
}

}  // namespace

int openPtyPair(int& master, int& slave, int flags) {
    int m = posix_openpt(flags | O_NOCTTY | O_NONBLOCK);
    if (m == -1) return -1;
    int s = openSlave(m);
    if (s == -1) {
        closeKeepingErrno(m);
        return -1;
    }
    // Raw at once, so that whatever a child writes before its parent sets the
    // terminal up passes unchanged.
    if (makeRaw(s) == -1) {
        closeKeepingErrno(s);
        closeKeepingErrno(m);
        return -1;
    }
    noteDescriptorOpened(m);
    noteDescriptorOpened(s);
    master = m;
    slave = s;
    return 0;
}
