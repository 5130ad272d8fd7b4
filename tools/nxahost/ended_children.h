// Reports module programs that have ended on their own.
#pragma once

#include <set>
#include <sys/types.h>

// A module's program that ends is not noticed by the library: its terminal
// stays open and the child stays unreaped until the module is stopped. The host
// reports each such child once, from its zombie, without reaping it (the
// library's process object does that when the module stops).
class EndedChildren {
public:
    // Writes one WARNING line per child that has ended since the last call.
    void report();

private:
    std::set<pid_t> reported_;
};
