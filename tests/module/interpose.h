// Replacing a libc or platform function inside a test binary: the binary
// defines the function itself (exported, so the libraries' calls reach it) and
// forwards to the next definition unless the test armed a fault.
#pragma once

#include <dlfcn.h>

namespace nxamodtest {

// The next definition of `symbol` after this binary's own, as a `Fn`.
template <class Fn>
Fn nextDefinition(char const* symbol) {
    return reinterpret_cast<Fn>(::dlsym(RTLD_NEXT, symbol));
}

}  // namespace nxamodtest
