// File-system helpers.
#pragma once

#include <new>
#include <string>

// Creates the directory and any missing parents with `mode`. Returns 0 on
// success, also when the directory already exists; -1 with errno otherwise
// (EEXIST when the path or a parent exists and is not a directory).
int mkdirPath(std::string const& path, int mode);

// Removes everything below the directory `path`; with removeTop also the
// directory itself. Symbolic links below `path` are removed, never followed.
// With removeTop false a `path` that is itself a link to a directory is followed
// (the caller names the directory to empty); with removeTop true such a link is
// removed instead, and the directory it points to is left alone. Stops at the
// first failure and returns -1 with its errno (what was removed before it is
// gone; ENOENT for a missing path, ENOTDIR for a path that is no directory);
// 0 on success.
int rmDir(std::string const& path, bool removeTop);

// Whether `path` is a directory (symbolic links followed). False when the path
// does not exist (errno ENOENT or ENOTDIR, from stat) and when it exists but is
// no directory (errno set to ENOTDIR); throws
// IOException(errno, "cannot stat " + path) on any other error (ELOOP,
// ENAMETOOLONG, EACCES, ...).
bool isDirectory(char const* path);

// The same, but false on any error (errno as stat left it, ENOTDIR for an
// existing non-directory); never throws.
bool isDirectory(char const* path, std::nothrow_t const&);
