/* Faults for the host daemon, loaded with LD_PRELOAD and armed by environment
 * variables read once at load time:
 *
 *   NXA_E2E_FAIL_SETSID=<k>   setsid() fails with EPERM in the k-th child
 *                             forked by the process (counting from 1); every
 *                             other call, and every call in the process
 *                             itself, goes to the C library.
 *   NXA_E2E_FAIL_DUP2_STDERR=<k>  dup2() onto descriptor 2 fails with EBUSY in
 *                             the k-th child forked by the process.
 *   NXA_E2E_FAIL_FORK=<k>     the k-th fork() of the process fails with EAGAIN.
 *   NXA_E2E_FAIL_PTY_READ=1   read() on a pseudo-terminal master (/dev/ptmx)
 *                             fails with EIO.
 *   NXA_E2E_GROW_WHILE_READ=<path>  while the file <path>.grow exists, a
 *                             read() that finds the end of the file <path>
 *                             appends one byte to it, as a writer that is
 *                             still at work would.
 *   NXA_E2E_KILL_AT_STEP=<k>  the process kills itself with SIGKILL just
 *                             before its k-th file-system step: a mkdir,
 *                             link, rename, unlink, rmdir, fsync, or an open that
 *                             creates, truncates or writes. Steps are counted
 *                             only in the process itself, and only while the
 *                             file NXA_E2E_STEPS_WHILE names exists (always
 *                             when unset); each counted step is appended to
 *                             the file NXA_E2E_STEP_LOG names, when set, as
 *                             "<k> <call> <path>".
 *
 * The library takes LD_PRELOAD out of the environment as it loads, so the
 * programs the host starts run without it. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "interpose.h"

static int failSetsidInChild;
static int failFork;
static int failDup2StderrInChild;
static int failPtyRead;
static char const* growWhileRead;
static int forksSoFar;
static int ordinalAsChild;
static int killAtStep;
static char const* stepsWhile;
static char const* stepLog;
static int stepsSoFar;
static pid_t armedIn;

__attribute__((constructor)) static void arm(void) {
    char const* setsidChild = getenv("NXA_E2E_FAIL_SETSID");
    char const* ptyRead = getenv("NXA_E2E_FAIL_PTY_READ");
    char const* forkNumber = getenv("NXA_E2E_FAIL_FORK");
    failFork = forkNumber ? atoi(forkNumber) : 0;
    char const* dup2Child = getenv("NXA_E2E_FAIL_DUP2_STDERR");
    failDup2StderrInChild = dup2Child ? atoi(dup2Child) : 0;
    failSetsidInChild = setsidChild ? atoi(setsidChild) : 0;
    failPtyRead = ptyRead && strcmp(ptyRead, "1") == 0;
    growWhileRead = getenv("NXA_E2E_GROW_WHILE_READ");
    char const* killStep = getenv("NXA_E2E_KILL_AT_STEP");
    killAtStep = killStep ? atoi(killStep) : 0;
    stepsWhile = getenv("NXA_E2E_STEPS_WHILE");
    stepLog = getenv("NXA_E2E_STEP_LOG");
    armedIn = getpid();
    unsetenv("LD_PRELOAD");
}

pid_t fork(void) {
    static pid_t (*realFork)(void);
    if (!realFork) realFork = (pid_t(*)(void))nxaNextDefinition("fork");
    int const next = forksSoFar + 1;
    if (next == failFork) {
        forksSoFar = next;
        errno = EAGAIN;
        return -1;
    }
    pid_t const pid = realFork();
    if (pid == 0) {
        ordinalAsChild = next;
    } else if (pid > 0) {
        forksSoFar = next;
    }
    return pid;
}

pid_t setsid(void) {
    static pid_t (*realSetsid)(void);
    if (!realSetsid) realSetsid = (pid_t(*)(void))nxaNextDefinition("setsid");
    if (failSetsidInChild > 0 && ordinalAsChild == failSetsidInChild) {
        errno = EPERM;
        return -1;
    }
    return realSetsid();
}

int dup2(int oldFd, int newFd) {
    static int (*realDup2)(int, int);
    if (!realDup2) realDup2 = (int (*)(int, int))nxaNextDefinition("dup2");
    if (newFd == 2 && failDup2StderrInChild > 0 && ordinalAsChild == failDup2StderrInChild) {
        errno = EBUSY;
        return -1;
    }
    return realDup2(oldFd, newFd);
}

/* Whether descriptor `fd` is open on the file `path`. */
static int isOpenOn(int fd, char const* path) {
    char link[64];
    char target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t const n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return 0;
    target[n] = '\0';
    return strcmp(target, path) == 0;
}

static int isPtyMaster(int fd) {
    return isOpenOn(fd, "/dev/ptmx") || isOpenOn(fd, "/dev/pts/ptmx");
}

static int growing(void) {
    char switchFile[4096];
    snprintf(switchFile, sizeof switchFile, "%s.grow", growWhileRead);
    return access(switchFile, F_OK) == 0;
}

static void appendOneByte(char const* path) {
    FILE* file = fopen(path, "a");
    if (file == NULL) return;
    fputc('\n', file);
    fclose(file);
}

ssize_t read(int fd, void* buf, size_t count) {
    static ssize_t (*realRead)(int, void*, size_t);
    if (!realRead) realRead = (ssize_t(*)(int, void*, size_t))nxaNextDefinition("read");
    if (failPtyRead && isPtyMaster(fd)) {
        errno = EIO;
        return -1;
    }
    ssize_t const n = realRead(fd, buf, count);
    if (growWhileRead && n == 0 && isOpenOn(fd, growWhileRead) && growing()) appendOneByte(growWhileRead);
    return n;
}

/* Counts a file-system step of the process itself, logs it, and ends the
 * process before the step when it is the one to die at. */
static void step(char const* call, char const* path) {
    if (killAtStep <= 0 || getpid() != armedIn) return;
    if (stepsWhile && access(stepsWhile, F_OK) != 0) return;
    ++stepsSoFar;
    if (stepLog) {
        static int (*realOpen)(char const*, int, ...);
        if (!realOpen) realOpen = (int (*)(char const*, int, ...))nxaNextDefinition("open");
        int const fd = realOpen(stepLog, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            dprintf(fd, "%d %s %s\n", stepsSoFar, call, path ? path : "-");
            close(fd);
        }
    }
    if (stepsSoFar == killAtStep) kill(getpid(), SIGKILL);
}

static int writes(int flags) {
    return (flags & (O_CREAT | O_TRUNC | O_WRONLY | O_RDWR)) != 0;
}

static mode_t modeOf(int flags, va_list args) {
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? (mode_t)va_arg(args, int) : 0;
}

#define NXA_OPEN_AT(name)                                                                \
    int name(int dirFd, char const* path, int flags, ...) {                              \
        static int (*real)(int, char const*, int, ...);                                  \
        if (!real) real = (int (*)(int, char const*, int, ...))nxaNextDefinition(#name); \
        va_list args;                                                                    \
        va_start(args, flags);                                                           \
        mode_t const mode = modeOf(flags, args);                                         \
        va_end(args);                                                                    \
        if (writes(flags)) step(#name, path);                                            \
        return real(dirFd, path, flags, mode);                                           \
    }
#define NXA_OPEN(name)                                                              \
    int name(char const* path, int flags, ...) {                                    \
        static int (*real)(char const*, int, ...);                                  \
        if (!real) real = (int (*)(char const*, int, ...))nxaNextDefinition(#name); \
        va_list args;                                                               \
        va_start(args, flags);                                                      \
        mode_t const mode = modeOf(flags, args);                                    \
        va_end(args);                                                               \
        if (writes(flags)) step(#name, path);                                       \
        return real(path, flags, mode);                                             \
    }
NXA_OPEN(open)
NXA_OPEN(open64)
NXA_OPEN_AT(openat)
NXA_OPEN_AT(openat64)

#define NXA_STEP(ret, name, params, types, args, path)            \
    ret name params {                                             \
        static ret(*real) types;                                  \
        if (!real) real = (ret(*) types)nxaNextDefinition(#name); \
        step(#name, path);                                        \
        return real args;                                         \
    }
NXA_STEP(int, mkdir, (char const* path, mode_t mode), (char const*, mode_t), (path, mode), path)
NXA_STEP(int, rename, (char const* from, char const* to), (char const*, char const*), (from, to), to)
NXA_STEP(int, renameat, (int fromDir, char const* from, int toDir, char const* to),
         (int, char const*, int, char const*), (fromDir, from, toDir, to), to)
NXA_STEP(int, link, (char const* from, char const* to), (char const*, char const*), (from, to), to)
NXA_STEP(int, linkat, (int fromDir, char const* from, int toDir, char const* to, int flags),
         (int, char const*, int, char const*, int), (fromDir, from, toDir, to, flags), to)
NXA_STEP(int, unlink, (char const* path), (char const*), (path), path)
NXA_STEP(int, unlinkat, (int dirFd, char const* path, int flags), (int, char const*, int),
         (dirFd, path, flags), path)
NXA_STEP(int, rmdir, (char const* path), (char const*), (path), path)
NXA_STEP(int, fsync, (int fd), (int), (fd), "-")
NXA_STEP(int, fdatasync, (int fd), (int), (fd), "-")
