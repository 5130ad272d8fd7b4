// Trace support shared by the platform and the library: the one process-wide
// trace lock, the error reporter, and two formatting aids.
#pragma once

#include <mutex>
#include <ostream>
#include <sstream>
#include <string>

namespace LogUtil {

// The process-wide trace lock. Every trace line is written while it is held,
// so lines of one process never interleave.
extern std::mutex logMutex;

// Writes the system's text for `err` to standard error and ends the line
// (flushed). It does not take logMutex: it completes a line that its caller
// has begun, usually while holding the lock.
void printError(int err);

}  // namespace LogUtil

// The value as operator<< prints it, e.g. makeString(7) == "7".
template <class T>
std::string makeString(T const& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

// Writes the bytes [first, last) as a hex dump, `width` bytes per line.
// Each line starts with `label` and ": "; with prefixKind 1 the line's offset
// from `first` follows as eight lower-case hex digits and ": "; with any other
// value there is no offset. Each byte is two lower-case hex digits, separated by
// one blank. With `ascii` true two blanks and the line's characters follow
// (printable ASCII as it is, '.' for the others); a short last line is padded
// with three blanks per missing byte first, so the characters line up. Every
// line ends with '\n'. Writes nothing for an empty range; width 0 is taken as 16.
//     hexdump(os, p, p + 3, "master", 4, 1, true) with "AB\n" writes
//     "master: 00000000: 41 42 0a     AB.\n"
void hexdump(std::ostream& os, unsigned char const* first, unsigned char const* last, char const* label,
             unsigned width, int prefixKind, bool ascii);
