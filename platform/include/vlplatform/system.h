// Facts about the machine and running shell commands.
#pragma once

#include <string>

// Total main memory in bytes (sysinfo's totalram times mem_unit; 0 if sysinfo
// fails). An exported function, so tests can interpose it.
unsigned long getTotalRam();

// The architecture name to write into a module's manifest: the machine's own
// name (uname) where the manifest check accepts that name on that machine
// ("i586", "i686"), and "noarch" otherwise (also when uname fails), so a module
// built here runs here.
std::string getMachine();

// Runs `cmd` with /bin/sh -c, appends everything it writes to its standard
// output to `out` (bytes as they are), waits for it and returns its wait status
// as system() does: exit code in bits 8 to 15, or the signal that killed it in
// the low bits. Standard input and standard error are the caller's (write
// "2>&1" in `cmd` to collect errors too). Returns -1 with errno when the
// command cannot be run at all (no pipe, no process, no shell) or cannot be
// waited for; `out` may then hold what was read before. An exported function,
// so tests can interpose it.
int getCmdCallOutput(char const* cmd, std::string& out);
