/* Replacing a libc or platform function inside a test binary (or a library
 * loaded with LD_PRELOAD): the binary defines the function itself, exported so
 * that the libraries' calls reach it, and forwards to the next definition
 * unless the test armed a fault:
 *
 *     extern "C" int uname(struct utsname* out) {
 *         static auto next = nxatest::nextDefinition<int (*)(struct utsname*)>("uname");
 *         ...
 *         return next(out);
 *     }
 *
 * Usable from C as well (nxaNextDefinition), with _GNU_SOURCE defined before
 * the first include. A C++ function is named by its mangled name. */
#pragma once

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The next definition of `symbol` after the caller's own. When there is none
 * the process ends at once with a message: a seam that cannot forward must not
 * go on. The message is written with the raw system call, since write() itself
 * may be the function being replaced. */
static inline void* nxaNextDefinition(char const* symbol) {
    void* next = dlsym(RTLD_NEXT, symbol);
    if (next == NULL) {
        static char const what[] = "interpose: no next definition of ";
        long ignored = syscall(SYS_write, 2, what, sizeof what - 1);
        ignored = syscall(SYS_write, 2, symbol, strlen(symbol));
        ignored = syscall(SYS_write, 2, "\n", 1);
        (void)ignored;
        abort();
    }
    return next;
}

#ifdef __cplusplus
namespace nxatest {

// The next definition of `symbol` after this binary's own, as a `Fn` (a
// pointer to function).
template <class Fn>
Fn nextDefinition(char const* symbol) {
    return reinterpret_cast<Fn>(nxaNextDefinition(symbol));
}

}  // namespace nxatest
#endif
