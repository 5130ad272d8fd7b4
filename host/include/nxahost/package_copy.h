// Taking a private copy of a package file that others may change at any time.
#pragma once

#include <string>

namespace nxahost {

// Copies the regular file `source` to `copy` (written beside it as
// `copy`.part, then renamed over it), so that what is checked and installed
// afterwards is one version of the file. A source that changes while it is
// read (its size, modification or change time differ after the last byte)
// is read again, up to three times in all; then it is refused with "the
// package changed while it was read". A file larger than `limit` bytes is
// refused too. Returns what went wrong, in words naming `source` ("<source>
// does not exist: No such file or directory", "cannot read <source>: ..."),
// or an empty text when `copy` now holds the file. Never throws; on a
// problem `copy` is left as it was.
std::string copyPackage(std::string const& source, std::string const& copy, unsigned long long limit);

}  // namespace nxahost
