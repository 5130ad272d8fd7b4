// Facts about the machine and running shell commands.
#pragma once

#include <string>

// Total main memory in bytes. An exported function, so tests can interpose it.
unsigned long getTotalRam();

// The architecture name to write into a module's manifest: the machine's own
// name (uname) where the manifest check accepts that name on that machine
// ("i586", "i686"), and "noarch" otherwise, so a module built here runs here.
std::string getMachine();

// Runs `cmd` with /bin/sh, appends everything it writes to its standard output
// to `out`, waits for it and returns its wait status as system() does (exit
// code in bits 8 to 15). Returns -1 with errno when the command cannot be run
// at all. An exported function, so tests can interpose it.
int getCmdCallOutput(char const* cmd, std::string& out);
