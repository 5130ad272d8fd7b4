// zipper::unZipWithDirs on arbitrary archive bytes. The destination sits two
// levels below a private root, so that anything written outside it by a
// climbing name lands in the root and is seen. After each call the root must
// hold only the input and, when the call succeeded, the destination with
// regular files and directories and no scratch folder left over; after a
// failure it must hold only the input.
#include <dirent.h>
#include <sys/stat.h>
#include <vlplatform/fs.h>
#include <vlplatform/zipper.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "fuzz_input.h"

namespace {

std::string const& root() {
    static std::string const path = [] {
        static char dir[] = "/tmp/nxa-unzip-fuzz.XXXXXX";
        if (!mkdtemp(dir)) std::abort();
        std::atexit([] { rmDir(dir, true); });
        return std::string(dir);
    }();
    return path;
}

[[noreturn]] void finding(std::string const& what) {
    std::fprintf(stderr, "unzip_fuzzer: %s\n", what.c_str());
    std::abort();
}

// The names in `dir` other than "." and "..".
std::set<std::string> namesIn(std::string const& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                names.insert(e->d_name);
        }
        closedir(d);
    }
    return names;
}

// `dir` holds nothing but (some of) `allowed`.
void expectOnly(std::string const& dir, std::set<std::string> const& allowed) {
    for (std::string const& name : namesIn(dir)) {
        if (allowed.count(name) == 0) finding("unexpected " + dir + "/" + name);
    }
}

// Everything below the destination must be a directory or a regular file.
void checkExtracted(std::string const& dir, bool top) {
    DIR* d = opendir(dir.c_str());
    if (!d) finding("cannot open " + dir);
    while (dirent* e = readdir(d)) {
        std::string const name = e->d_name;
        if (name == "." || name == "..") continue;
        if (top && name.compare(0, 11, ".nxa-unzip-") == 0) finding("scratch folder left in " + dir);
        std::string const path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) finding("cannot stat " + path);
        if (S_ISDIR(st.st_mode)) {
            checkExtracted(path, false);
        } else if (!S_ISREG(st.st_mode)) {
            finding("not a file or directory: " + path);
        }
    }
    closedir(d);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const archive = root() + "/in.zip";
    std::string const dest = root() + "/a/b/dest";
    rmDir(root(), false);
    fuzzinput::writeInput(archive, data, size);
    int const result = zipper::unZipWithDirs(archive, dest, "");
    if (result == 0) {
        expectOnly(root(), {"in.zip", "a"});
        expectOnly(root() + "/a", {"b"});
        expectOnly(root() + "/a/b", {"dest"});
        struct stat st;
        if (lstat(dest.c_str(), &st) == 0) checkExtracted(dest, true);
    } else if (namesIn(root()) != std::set<std::string>{"in.zip"}) {
        finding("a failed call left more than its input in " + root());
    }
    return 0;
}
