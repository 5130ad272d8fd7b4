// Moving a completely extracted archive from its scratch folder into place.
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/fs.h>

#include <cerrno>
#include <cstdio>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace detail {
namespace {

void renameEntry(std::string const& from, std::string const& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) throw systemFailure("cannot move " + from + " to " + to);
}

// Removes what is at `path` (lstat'ed as `st`) so that a new entry can take
// its name; a symbolic link is removed itself, never followed.
void removeExisting(std::string const& path, struct stat const& st) {
    if (S_ISDIR(st.st_mode)) {
        if (rmDir(path, true) != 0) throw systemFailure("cannot replace " + path);
    } else if (::unlink(path.c_str()) != 0) {
        throw systemFailure("cannot replace " + path);
    }
}

// Moves `from` (made by this process) to `to`, merging directories.
void moveEntry(std::string const& from, std::string const& to) {
    struct stat target;
    if (::lstat(to.c_str(), &target) != 0) {
        if (errno != ENOENT) throw systemFailure("cannot stat " + to);
        renameEntry(from, to);
        return;
    }
    struct stat source;
    if (::lstat(from.c_str(), &source) != 0) throw systemFailure("cannot stat " + from);
    if (S_ISDIR(source.st_mode) && S_ISDIR(target.st_mode)) {
        moveIntoPlace(from, to);
        return;
    }
    // rename() replaces a file by a file by itself, atomically.
    if (S_ISDIR(source.st_mode) || S_ISDIR(target.st_mode)) removeExisting(to, target);
    renameEntry(from, to);
}

}  // namespace

void moveIntoPlace(std::string const& from, std::string const& to) {
    for (std::string const& name : listDirectory(from)) moveEntry(from + "/" + name, to + "/" + name);
}

}  // namespace detail
}  // namespace zipper
