// Lines with numbers that change from run to run (process ids, descriptors,
// times), matched against patterns.
#pragma once

#include <string>

namespace e2e {

// True when `line` matches `pattern` as a whole: in a pattern '#' stands for
// one or more decimal digits and '?' for exactly one; every other character
// stands for itself.
bool matchesLine(std::string const& line, std::string const& pattern);

// How many complete lines of `text` (ended by "\n", which is not part of the
// line) match `pattern`.
int countMatchingLines(std::string const& text, std::string const& pattern);

// The library's first line on a module's terminal, as a client sees it:
// "[INFO] NXAModule::exec() pid=<n>: starting module \"<name>\", childpid=<n>"
// and its line end, both numbers the program's process id. Returns that line
// (with its line end) when `text` starts with it, else an empty string.
std::string leadingStartingLine(std::string const& text, std::string const& name);

// The process id shown in a starting line; 0 when there is none.
int pidOfStartingLine(std::string const& line);

}  // namespace e2e
