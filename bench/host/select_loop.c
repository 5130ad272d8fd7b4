/* select_loop PORT PROGRAM [ARG...]: the smallest server of a program on a raw
 * pseudo-terminal, as a reference for the benchmark. It accepts one TCP
 * client on PORT, starts PROGRAM on the terminal, and then loops: select on
 * the terminal and the client, read at most 512 bytes from whichever is ready
 * and write them, whole, to the other. No fan-out, no run log, no bus. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

static int writeAll(int fd, char const* data, ssize_t length) {
    while (length > 0) {
        ssize_t n = write(fd, data, (size_t)length);
        if (n <= 0) return -1;
        data += n;
        length -= n;
    }
    return 0;
}

static int listenOn(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr_in addr = {0};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (bind(fd, (struct sockaddr*)&addr, sizeof addr) != 0 || listen(fd, 1) != 0) exit(1);
    return fd;
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return 1;
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    struct termios raw;
    tcgetattr(slave, &raw);
    cfmakeraw(&raw);
    tcsetattr(slave, TCSANOW, &raw);
    int client = accept(listenOn((unsigned short)atoi(argv[1])), NULL, NULL);
    if (fork() == 0) {
        setsid();
        dup2(slave, 0);
        dup2(slave, 1);
        dup2(slave, 2);
        execv(argv[2], argv + 2);
        _exit(1);
    }
    char buf[512];
    for (;;) {
        fd_set rd;
        FD_ZERO(&rd);
        FD_SET(master, &rd);
        FD_SET(client, &rd);
        if (select((master > client ? master : client) + 1, &rd, NULL, NULL, NULL) < 0) return 1;
        if (FD_ISSET(client, &rd)) {
            ssize_t n = read(client, buf, sizeof buf);
            if (n <= 0 || writeAll(master, buf, n) != 0) return 0;
        }
        if (FD_ISSET(master, &rd)) {
            ssize_t n = read(master, buf, sizeof buf);
            if (n <= 0 || writeAll(client, buf, n) != 0) return 0;
        }
    }
}
