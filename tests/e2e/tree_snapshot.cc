#include "tree_snapshot.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>

namespace e2e {

namespace {

bool atOrBelow(std::string const& path, std::string const& top) {
    return path == top ||
           (path.size() > top.size() && path.compare(0, top.size(), top) == 0 && path[top.size()] == '/');
}

void walk(std::string const& path, dev_t device, std::vector<std::string> const& skipped, Tree& tree) {
    struct stat s;
    if (::lstat(path.c_str(), &s) != 0 || s.st_dev != device) return;
    for (std::string const& skip : skipped) {
        if (atOrBelow(path, skip)) return;
    }
    char type = S_ISDIR(s.st_mode) ? 'd' : S_ISLNK(s.st_mode) ? 'l' : S_ISREG(s.st_mode) ? 'f' : 'o';
    tree[path] = std::string(1, type) + " size " + std::to_string(S_ISDIR(s.st_mode) ? 0 : s.st_size) +
                 " mtime " + std::to_string(s.st_mtim.tv_sec) + "." + std::to_string(s.st_mtim.tv_nsec);
    if (!S_ISDIR(s.st_mode)) return;
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(dir)) {
        std::string const name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(dir);
    for (std::string const& name : names) walk(path + "/" + name, device, skipped, tree);
}

}  // namespace

Tree snapshot(std::vector<std::string> const& roots, std::vector<std::string> const& skipped) {
    Tree tree;
    for (std::string const& root : roots) {
        struct stat s;
        if (::lstat(root.c_str(), &s) == 0) walk(root, s.st_dev, skipped, tree);
    }
    return tree;
}

std::string changesOutside(Tree const& before, Tree const& after, std::vector<std::string> const& allowed) {
    auto isAllowed = [&](std::string const& path) {
        return std::any_of(allowed.begin(), allowed.end(),
                           [&](std::string const& a) { return atOrBelow(path, a); });
    };
    std::string changes;
    for (auto const& [path, what] : after) {
        if (isAllowed(path)) continue;
        auto const old = before.find(path);
        if (old == before.end()) {
            changes += "+ " + path + " " + what + "\n";
        } else if (old->second != what && what[0] != 'd') {
            changes += "~ " + path + " " + what + "\n";
        }
    }
    for (auto const& [path, what] : before) {
        if (!isAllowed(path) && !after.count(path)) changes += "- " + path + " " + what + "\n";
    }
    return changes;
}

}  // namespace e2e
