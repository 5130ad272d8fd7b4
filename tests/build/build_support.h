// What the build-side tests share: the sandbox's workspace paths, installing
// the platform into the sandbox, source archives, and looking at results.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nxaclient.h"

namespace buildtest {

constexpr char kWork[] = "/var/opt/velmora/work";
constexpr char kSrcDir[] = "/var/opt/velmora/work/src";
constexpr char kOutDir[] = "/var/opt/velmora/work/nxadevel";
constexpr char kProgram[] = "/var/opt/velmora/work/nxadevel/nxadevel";
constexpr char kMakefile[] = "/opt/velmora/share/nxa/Makefile";
constexpr char kPackage[] = "/tmp/nxadevel.zip";
// The tests' own files: private to the sandbox and outside the workspace. (A
// name under the sandbox's /tmp may be a machine's file bound back into it.)
constexpr char kScratch[] = "/var/opt/velmora/scratch";

// Empties the sandbox's /opt/velmora and /var/opt/velmora, removes the
// package, and creates kScratch: a fresh start for each case, also when a
// binary's cases share one sandbox.
void resetSandbox();

using Files = std::vector<std::pair<std::string, std::string>>;

// A facade whose workspace is kWork, at trace level `debug`.
std::unique_ptr<NXAClient> makeClient(unsigned debug = 0);

// Installs what a module build needs into the sandbox's /opt/velmora: the
// platform library and the client library with their headers (their
// directories' own install rules, from the build tree) and the shared
// Makefile. Fails the test fatally when it cannot.
void installPlatform();

// Installs the whole project into the sandbox's /opt/velmora with
// cmake --install.
void installProject();

// Replaces the shared Makefile by `text` (creating its directory).
void writeMakefile(std::string const& text);

// Writes `files` into a scratch directory and zips them, with the zip tool,
// into `archive`.
void makeSourceArchive(std::string const& archive, Files const& files);

// The names of the entries of `archive`, as unzip lists them.
std::vector<std::string> zipEntries(std::string const& archive);

// The exact make command the library runs for the given argument text (the
// arguments joined by blanks, empty for none).
std::string expectedMakeCommand(std::string const& argsText);

// The "-j N" job count the library derives from this machine's memory.
std::string jobsForThisMachine();

// The process's working directory.
std::string currentDir();

// The lines of `text` (without line feeds) that begin with `prefix`.
std::vector<std::string> linesStartingWith(std::string const& text, std::string const& prefix);

// Whether `path` exists (links not followed).
bool exists(std::string const& path);

// Where a symbolic link points; empty when `path` is no link.
std::string linkTarget(std::string const& path);

// What `operation` threw, as "VLException: <what>", "IOException(<error
// number>): <what>", "<type>: <what>" for other exceptions, or "nothing".
std::string thrown(std::function<void()> const& operation);

// What an operation run by runAs ended with.
struct Outcome {
    bool threw = false;
    std::string what;
    int code = 0;
    std::string cwd;
};

// Runs `operation` in a child process under user and group id `uid`, and
// reports whether it threw an IOException (its text and error number) and the
// child's working directory afterwards.
Outcome runAs(unsigned uid, std::function<void()> const& operation);

// The names in /tmp, /var/opt and /var/opt/velmora (but the workspace kWork)
// and everything under /opt/velmora, one per line: what a test compares to
// show that nothing outside the workspace changed.
std::string namesOutsideWorkspace();

}  // namespace buildtest
