// File-system helpers.
#pragma once

#include <new>
#include <string>

// Creates the directory and any missing parents with `mode`. Returns 0 on
// success, also when the directory already exists; -1 with errno otherwise
// (EEXIST when the path or a parent exists and is not a directory).
int mkdirPath(std::string const& path, int mode);

// Removes everything below the directory `path`; with removeTop also the
// directory itself. Symbolic links are removed, never followed. Returns 0, or
// -1 with errno of the first failure (what could be removed before it is gone).
int rmDir(std::string const& path, bool removeTop);

// Whether `path` is a directory (symbolic links followed). False when the path
// does not exist (ENOENT, ENOTDIR); throws IOException(errno, "cannot stat " + path)
// on any other error.
bool isDirectory(char const* path);

// The same, but false on any error; never throws.
bool isDirectory(char const* path, std::nothrow_t const&);
