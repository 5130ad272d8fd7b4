// What the ini parser and zip tests share: a private temporary directory per
// test and a listing of a directory tree to compare before and after.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "shell.h"

namespace filestest {

// A fresh directory under /tmp, removed with everything in it at the end.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/nxa-files-test.XXXXXX";
        if (char* made = mkdtemp(pattern)) path_ = made;
        ::chmod(path_.c_str(), 0755);
    }
    ~TempDir() {
        if (!path_.empty()) nxatest::shell("chmod -R u+rwx '" + path_ + "'; rm -rf '" + path_ + "'");
    }
    TempDir(TempDir const&) = delete;
    TempDir& operator=(TempDir const&) = delete;

    std::string const& path() const { return path_; }
    std::string operator/(std::string const& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

namespace detail {

inline void listInto(std::string const& root, std::string const& relative, std::vector<std::string>& out) {
    std::string const dirPath = relative.empty() ? root : root + "/" + relative;
    DIR* dir = opendir(dirPath.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent* e = readdir(dir)) {
        std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(dir);
    for (std::string const& name : names) {
        std::string const rel = relative.empty() ? name : relative + "/" + name;
        struct stat st;
        if (lstat((root + "/" + rel).c_str(), &st) != 0) continue;
        char kind = S_ISDIR(st.st_mode) ? 'd' : S_ISLNK(st.st_mode) ? 'l' : S_ISREG(st.st_mode) ? 'f' : '?';
        out.push_back(std::string(1, kind) + " " + rel +
                      (S_ISREG(st.st_mode) ? " " + std::to_string(st.st_size) : ""));
        if (S_ISDIR(st.st_mode)) listInto(root, rel, out);
    }
}

}  // namespace detail

// Every path below `root` (symbolic links not followed), sorted, each as
// "<kind> <relative path>[ <size>]" with kind d, f, l or ?.
inline std::vector<std::string> listTree(std::string const& root) {
    std::vector<std::string> out;
    detail::listInto(root, "", out);
    std::sort(out.begin(), out.end());
    return out;
}

// The permission bits of `path` (symbolic links followed), or -1.
inline int modeOf(std::string const& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

inline bool exists(std::string const& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace filestest
