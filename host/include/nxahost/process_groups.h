// The process groups of the module programs, so that a reload can wait until
// they are gone.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <set>

namespace nxahost {

// The process groups led by this process's children: each module program
// leads a session and a process group of its own, whose id is its process id.
// A child that is not a group leader (a forked copy of the host that failed
// before it became one) names no group, and waiting for it ends at once.
std::set<pid_t> childProcessGroups();

// Waits until no process is left in any of `groups`, or `limit` has passed.
// A module program's own children inherit its module's listening socket and
// terminal; the library stops the program and signals its group, but does not
// wait for the rest of the group, which holds the module's port until it has
// gone.
void awaitProcessGroupsGone(std::set<pid_t> const& groups, std::chrono::milliseconds limit);

}  // namespace nxahost
