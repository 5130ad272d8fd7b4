// Installation of the module package: packageDir/nxa.zip holds one zip archive
// per module; each becomes modulesDir/<archive name without ".zip">.
#include <dirent.h>
#include <sys/stat.h>
#include <vlplatform/fs.h>
#include <vlplatform/zipper.h>

#include <cerrno>
#include <memory>
#include <optional>

#include "nxaclient.h"
#include "trace.h"

using nxa::trace::kClient;

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// Empties the modules directory, or creates it when it is not a directory.
void resetModulesDir(std::string const& modulesDir) {
    if (isDirectory(modulesDir.c_str(), std::nothrow)) {
        if (rmDir(modulesDir, false) == -1)
            throw IOException(errno, "cannot remove contents of " + modulesDir);
    } else if (mkdir(modulesDir.c_str(), 0777) == -1) {
        throw IOException(errno, "cannot create " + modulesDir);
    }
}

// Removes what an earlier installation left in the scratch directory.
void removeScratchDir() {
    if (isDirectory(NXAClient::NXA_TMPDIR, std::nothrow) && rmDir(NXAClient::NXA_TMPDIR, true) == -1) {
        throw IOException(errno, std::string("cannot remove tmp directory ") + NXAClient::NXA_TMPDIR);
    }
}

// The module name of a scratch entry: its name up to the last dot, when the
// text after that dot is exactly "zip" (case matters); nothing otherwise.
std::optional<std::string> moduleNameOf(std::string const& entry) {
    std::string::size_type dot = entry.rfind('.');
    if (dot == std::string::npos || entry.compare(dot + 1, std::string::npos, "zip") != 0)
        return std::nullopt;
    return entry.substr(0, dot);
}

// The scratch directory's entries, in the order the directory yields them.
std::vector<std::string> scratchEntries() {
    std::unique_ptr<DIR, DirCloser> dir(opendir(NXAClient::NXA_TMPDIR));
    if (!dir) throw IOException(errno, std::string("cannot opendir ") + NXAClient::NXA_TMPDIR);
    std::vector<std::string> names;
    while (dirent const* entry = readdir(dir.get())) names.emplace_back(entry->d_name);
    return names;
}

}  // namespace

void NXAClient::unpack() {
    std::string const package = packageDir + "/" + NXA_ZIP;
    if (modules.getModuleNames().empty()) {
        NXA_INFO(kClient, "no modules configured, ignore not existing ", package);
        return;
    }
    struct stat status;
    if (stat(package.c_str(), &status) < 0) throw IOException(ENOENT, package + " does not exist");
    NXA_INFO(kClient, package, " found, continue");
    resetModulesDir(modulesDir);
    removeScratchDir();
    if (zipper::unZipWithDirs(package, NXA_TMPDIR, "") == -1) {
        throw IOException(ENOENT, "cannot unzip " + package + " to " + NXA_TMPDIR);
    }
    for (std::string const& entry : scratchEntries()) {
        std::optional<std::string> const name = moduleNameOf(entry);
        if (!name) continue;
        std::string const archive = std::string(NXA_TMPDIR) + "/" + entry;
        std::string const destination = modulesDir + "/" + *name;
        if (zipper::unZipWithDirs(archive, destination, "") == -1) {
            // Left open on purpose: the next trace line continues this one.
            nxa::trace::unterminated(std::cout, nxa::trace::kWarning, kClient, __func__, "cannot unzip ",
                                     archive, " to ", destination);
        }
    }
    modules.scan(modulesDir);
}
