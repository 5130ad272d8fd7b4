// File-system helpers: creating paths, removing trees, testing for directories.
#include "vlplatform/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "vlplatform/exceptions.h"

namespace {

bool isDirectoryAt(char const* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Creates one directory of the path; one that exists already is fine.
int makeOne(std::string const& dir, int mode) {
    if (mkdir(dir.c_str(), static_cast<mode_t>(mode)) == 0) return 0;
    if (errno != EEXIST) return -1;
    if (isDirectoryAt(dir.c_str())) return 0;
    errno = EEXIST;
    return -1;
}

}  // namespace

int mkdirPath(std::string const& path, int mode) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    for (std::size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
        std::string dir = path.substr(0, pos);
        bool repeated = !dir.empty() && dir.back() == '/';
        if (!repeated && makeOne(dir, mode) == -1) return -1;
        if (pos == std::string::npos) return 0;
    }
}

namespace {

int removeEntries(int dirFd);

// Removes the entry `name` of the open directory `dirFd`; a directory with all
// it holds. Symbolic links are removed, never followed.
int removeEntry(int dirFd, char const* name, unsigned char type) {
    if (type == DT_UNKNOWN) {
        struct stat st;
        if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) == -1) return -1;
        type = S_ISDIR(st.st_mode) ? DT_DIR : DT_REG;
    }
    if (type != DT_DIR) return unlinkat(dirFd, name, 0);
    int sub = openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (sub == -1 || removeEntries(sub) == -1) return -1;
    return unlinkat(dirFd, name, AT_REMOVEDIR);
}

bool isDotOrDotDot(char const* name) {
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

// Removes everything in the directory open as `dirFd`, and closes it.
int removeEntries(int dirFd) {
    DIR* dir = fdopendir(dirFd);
    if (!dir) {
        int err = errno;
        close(dirFd);
        errno = err;
        return -1;
    }
    int rc = 0;
    errno = 0;
    while (dirent* entry = readdir(dir)) {
        if (isDotOrDotDot(entry->d_name)) continue;
        rc = removeEntry(dirfd(dir), entry->d_name, entry->d_type);
        if (rc == -1) break;
        errno = 0;
    }
    if (rc == 0 && errno != 0) rc = -1;  // readdir failed
    int err = errno;
    closedir(dir);
    errno = err;
    return rc;
}

}  // namespace

int rmDir(std::string const& path, bool removeTop) {
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    if (removeTop) {
        struct stat st;
        if (lstat(path.c_str(), &st) == -1) return -1;
        // A link in place of the directory is removed itself, not followed.
        if (S_ISLNK(st.st_mode)) return unlink(path.c_str());
        flags |= O_NOFOLLOW;
    }
    int fd = open(path.c_str(), flags);
    if (fd == -1 || removeEntries(fd) == -1) return -1;
    return removeTop ? rmdir(path.c_str()) : 0;
}

bool isDirectory(char const* path) {
    struct stat st;
    if (stat(path, &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        errno = ENOTDIR;
        return false;
    }
    if (errno == ENOENT || errno == ENOTDIR) return false;
    int err = errno;
    throw IOException(err, std::string("cannot stat ") + path);
}

bool isDirectory(char const* path, std::nothrow_t const&) {
    struct stat st;
    if (stat(path, &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        errno = ENOTDIR;
        return false;
    }
    return false;
}
