// The fixed paths of the build side and the two directories of a build
// workspace. Header only, private to src/build.
#pragma once

#include <string>

#include "nxaclient.h"

namespace nxa {
namespace build {

// The platform's shared data directory: the Makefile and the files that
// createFile links into a workspace.
inline constexpr char kDataDir[] = "/opt/velmora/share/nxa";
// The shared module Makefile, given to make with -f and as NXAMAKEFILE.
inline constexpr char kMakefile[] = "/opt/velmora/share/nxa/Makefile";
// Mode of the workspace directories that a build creates.
inline constexpr int kDirMode = 0777;

// workDir/src: where the sources are unpacked and make runs.
inline std::string sourceDir(std::string const& workDir) {
    return workDir + "/src";
}

// workDir/nxadevel: the build output, zipped into the development package.
inline std::string outputDir(std::string const& workDir) {
    return workDir + "/" + NXAClient::NXA_BIN;
}

}  // namespace build
}  // namespace nxa
