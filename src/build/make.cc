// NXAClient::make: make on the shared module Makefile with the fixed build
// environment.
#include <vlplatform/exceptions.h>
#include <vlplatform/system.h>

#include <cerrno>
#include <string>
#include <vector>

#include "build_paths.h"
#include "nxaclient.h"
#include "trace.h"

namespace {

// One make variable of the build environment, passed on the command line so
// that it wins over the Makefile's own assignments and over the environment.
struct BuildVariable {
    char const* name;
    char const* value;
};

// The -g -O2 beginning of both compiler flag rows. The prefix map names the
// directory in which the platform library collection vllib is compiled,
// /build/vllib, so its debug information refers to "." instead.
#define NXA_FLAGS_HEAD "-g -O2 -fdebug-prefix-map=/build/vllib=."

// The build environment, in command-line order. The values hold no double
// quote, dollar sign or backslash: they are wrapped in double quotes for the
// shell without escaping. Double blanks and repeated options are kept as they
// stand; some warning options are unknown to recent compilers, and the shared
// Makefile leaves those out.
constexpr BuildVariable kBuildEnvironment[] = {
    {"NXAVLLIBDIR", "/opt/velmora"},
    {"NXALIBSUBDIR", "lib/x86_64-linux-gnu"},
    {"NXADATADIR", nxa::build::kDataDir},
    {"NXACPPFLAGS",
     "-Wdate-time -D_FORTIFY_SOURCE=2 -D_ATFILE_SOURCE -DBOOST_NO_SCOPED_ENUMS "
     "-DBOOST_NO_CXX11_SCOPED_ENUMS -DHAVE_CONFIG_H -I/opt/velmora/include -D__STDC_LIMIT_MACROS "
     "-D__STDC_CONSTANT_MACROS -D__STDC_FORMAT_MACROS -D_POSIX_THREADS "
     "-D_POSIX_THREAD_SAFE_FUNCTIONS -D_REENTRANT -D_GLIBCXX_USE_NANOSLEEP"},
    {"NXACFLAGS", NXA_FLAGS_HEAD
     " -fstack-protector-strong -Wformat -Werror=format-security -pipe  -O3 "
     "-Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat-security -Wignored-qualifiers -Wlogical-op "
     "-Wmissing-include-dirs -Wpointer-arith -Wundef -Wuninitialized"},
    {"NXACXXFLAGS", NXA_FLAGS_HEAD
     " -fstack-protector-strong -Wformat -Werror=format-security -pipe -fno-implement-inlines  "
     "-O3 -Wp,-D_FORTIFY_SOURCE=2 -Wall -Werror -Wformat-security -Wignored-qualifiers "
     "-Wlogical-op -Wmissing-include-dirs -Wpointer-arith -Wundef -Wuninitialized -Wno-vla "
     "-Wchkp -Wclobbered -Wconditionally-supported -Wconversion-null -Wctor-dtor-privacy "
     "-Wdate-time -Wdisabled-optimization -Wdouble-promotion -Wduplicated-cond -Wempty-body "
     "-Wfloat-conversion -Wformat-signedness -Winvalid-pch -Wmissing-field-initializers "
     "-Wmissing-field-initializers -Wnoexcept -Wnon-virtual-dtor -Woverlength-strings "
     "-Wpedantic -Wplacement-new=2 -Wshift-negative-value -Wshift-overflow=2 "
     "-Wsized-deallocation -Wsizeof-array-argument -Wstrict-null-sentinel -Wsync-nand "
     "-Wtype-limits -Wuninitialized -Wunused -Wunused-parameter -Wuseless-cast "
     "-Wwrite-strings -Wzero-as-null-pointer-constant -Wcast-align -Wchkp -Wclobbered "
     "-Wconditionally-supported -Wconversion-null -Wctor-dtor-privacy -Wdangling-else "
     "-Wdate-time -Wdisabled-optimization -Wempty-body -Wexpansion-to-defined -Winvalid-pch "
     "-Wnoexcept -Wnoexcept-type -Wnon-virtual-dtor -Woverlength-strings -Wpointer-compare "
     "-Wrestrict -Wsizeof-array-argument -Wstrict-null-sentinel -Wstringop-overflow=4 "
     "-Wswitch-unreachable -Wsync-nand -Wunused -Wwrite-strings -Wno-format-overflow"},
    {"NXALDFLAGS", "-Wl,-z,relro -L/opt/velmora/lib/x86_64-linux-gnu"},
    {"NXAMAKEFILE", nxa::build::kMakefile},
};

#undef NXA_FLAGS_HEAD

// "make -f <Makefile>", the arguments as they are (the shell splits them), the
// build environment as name="value" words, and standard error joined to the
// output.
std::string makeCommand(std::vector<std::string> const& args) {
    std::string cmd = "make -f ";
    cmd += nxa::build::kMakefile;
    for (std::string const& arg : args) {
        cmd += ' ';
        cmd += arg;
    }
    for (BuildVariable const& var : kBuildEnvironment) {
        cmd += ' ';
        cmd += var.name;
        cmd += "=\"";
        cmd += var.value;
        cmd += '"';
    }
    cmd += " 2>&1";
    return cmd;
}

// Bits 8 to 15 of a wait status: the exit code of a process that exited.
unsigned exitCodeByte(int status) {
    return (static_cast<unsigned>(status) >> 8) & 0xffu;
}

}  // namespace

void NXAClient::make(std::string& log, std::vector<std::string> const& args) {
    std::string const cmd = makeCommand(args);
    NXA_INFO(nxa::trace::kClient, "call: ", cmd);
    int const ret = getCmdCallOutput(cmd.c_str(), log);
    int const err = errno;
    NXA_DEBUG(nxa::trace::kClient, "getCmdCallOutput: ret=", ret, " WEXITSTATUS=", exitCodeByte(ret),
              " errno=", err, " _log.size()=", log.size(), " _log=\"", log, "\"");
    if (ret < 0) throw IOException(err, "cannot call make");
    // Only the exit-code byte counts: a make killed by a signal passes as a success.
    if (exitCodeByte(ret) != 0) throw VLException("make error");
}
