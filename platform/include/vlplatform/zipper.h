// Zip archives, on libzip.
#pragma once

#include <string>

namespace zipper {

// Sets the trace level of the zip helpers (0: silent; 1 and above: one line per
// archive on standard output, in the trace frame of component "zipper").
void setDebug(unsigned level);

// Writes a fresh `archive` (an old one is replaced) holding `folder` by its
// last path component, recursively, with directory entries. Returns 0, or -1
// with errno on failure (the old archive is then left as it was).
int zipFolderAsFolder(std::string const& folder, std::string const& archive);

// Extracts `archive` into `dest`, creating directories as the entries need.
// `password` decrypts encrypted entries when not empty. Returns 0, or -1 on any
// failure. It refuses (-1, nothing written) archives with an entry whose name is
// absolute, holds a ".." component or a backslash, or is a symbolic link; a
// corrupt or truncated archive is a failure too. Data is first extracted into a
// hidden scratch folder inside `dest` and moved into place only when the whole
// archive was read correctly, so nothing is ever written outside `dest`.
int unZipWithDirs(std::string const& archive, std::string const& dest, std::string const& password);

}  // namespace zipper
