// NXAClient::build, getSources and createFile: the developer's operations on
// the build workspace. Each of them changes the process's working directory to
// the workspace's source directory and leaves it there.
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/fs.h>
#include <vlplatform/system.h>

#include <cerrno>
#include <string>
#include <vector>

#include "build_paths.h"
#include "nxaclient.h"
#include "trace.h"

namespace {

// Throws IOException(errno, what) unless `rc` is 0.
void check(int rc, std::string const& what) {
    if (rc != 0) {
        int const err = errno;
        throw IOException(err, what);
    }
}

// Creates both workspace directories (and their parents) and empties them.
void prepareWorkspace(std::string const& srcDir, std::string const& outDir) {
    check(mkdirPath(srcDir, nxa::build::kDirMode), "create src dir " + srcDir);
    check(mkdirPath(outDir, nxa::build::kDirMode), "create build dir " + outDir);
    check(rmDir(srcDir, false), "remove old source files in " + srcDir);
    // Deliberately names the source directory although the output directory failed.
    check(rmDir(outDir, false), "remove old source files in " + srcDir);
}

// The make job count: two from joblimit bytes of memory on, one below.
char const* jobCount(unsigned long totalRam) {
    return totalRam > NXAClient::joblimit - 1 ? "2" : "1";
}

// Runs `cmd` through the shell, appending its output to `log`; throws
// IOException(errno, what) when the command cannot be run at all. Its exit code
// is not looked at.
void runCommand(std::string const& cmd, std::string& log, std::string const& what) {
    if (getCmdCallOutput(cmd.c_str(), log) < 0) {
        int const err = errno;
        throw IOException(err, what);
    }
}

}  // namespace

void NXAClient::build(std::string const& src, std::string& log, bool force) {
    std::string const srcDir = nxa::build::sourceDir(workDir);
    std::string const outDir = nxa::build::outputDir(workDir);
    NXA_DETAIL(nxa::trace::kClient, "srcdir=", srcDir);
    prepareWorkspace(srcDir, outDir);
    check(chdir(srcDir.c_str()), "change dir to " + srcDir);

    log += "\n\nunzip log:\n";
    // The archive path goes to the shell as it is, unquoted.
    std::string const unzip = "unzip -o " + src;
    NXA_INFO(nxa::trace::kClient, "call: ", unzip);
    // unzip's exit code is not examined: make then fails on what is missing.
    runCommand(unzip, log, "cannot unzip " + src);
    // Every build starts from empty directories, so forcing changes nothing else.
    if (force) NXA_INFO(nxa::trace::kClient, "forced build");

    log += "\n\nmake log:\n";
    make(log, {"-j", jobCount(totalRam), std::string("BIN=") + outDir + "/" + NXA_BIN});
    makePackage(outDir, log);
}

void NXAClient::getSources(std::string const& dest, std::string& log) {
    std::string const srcDir = nxa::build::sourceDir(workDir);
    if (!isDirectory(srcDir.c_str())) {
        int const err = errno;
        throw IOException(err, "no src dir " + srcDir);
    }
    check(chdir(srcDir.c_str()), "change dir to " + srcDir);

    log += "\n\nzip log:\n";
    // `dest` goes to the shell unquoted; the patterns are expanded in the source
    // directory, top level only. zip's exit code is not examined.
    std::string const zip = "zip " + dest + " *.h *.hh *.c *.cc";
    NXA_INFO(nxa::trace::kClient, "call: ", zip);
    runCommand(zip, log, "cannot zip " + dest);
}

void NXAClient::createFile(std::string const& name) {
    std::string const srcDir = nxa::build::sourceDir(workDir);
    // "cannto" is the operation's established message text, kept deliberately.
    check(chdir(srcDir.c_str()), "cannto chdir to " + srcDir);
    if (unlink(name.c_str()) == -1 && errno != ENOENT) {
        int const err = errno;
        throw IOException(err, "cannot remove old " + name);
    }
    std::string const target = std::string(nxa::build::kDataDir) + "/" + name;
    // Names the link, not its target.
    check(symlink(target.c_str(), name.c_str()), "cannot create symlink to " + name);
}
