// NXAClient::makePackage: the manifest of a development build and its archive.
#include <vlplatform/exceptions.h>
#include <vlplatform/system.h>
#include <vlplatform/zipper.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "nxaclient.h"

namespace {

// Writes the five manifest lines into `path` (created or truncated). The
// stream's state is deliberately never tested: a manifest that cannot be
// written is skipped silently and the archive is made without it.
void writeManifest(std::string const& path) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    out << "# Development package created by vllib 11.1.0.4\n";
    out << NXAClient::NXA_KEY_NAME << "\t\t=\t" << NXAClient::NXA_BIN << "\n";
    out << "version\t\t=\t1.0\n";
    out << "minFWVersion\t=\t0.0\n";
    out << NXAClient::NXA_KEY_ARCH << "\t=\t" << getMachine() << std::endl;
}

}  // namespace

void NXAClient::makePackage(std::string const& dir, std::string& /*log: not used*/) {
    writeManifest(dir + "/" + NXA_MANIFEST);
    if (zipper::zipFolderAsFolder(dir, NXA_DEVEL_ZIP) == -1) {
        int const err = errno;
        throw IOException(err, "cannot zip " + dir + " to " + NXA_DEVEL_ZIP);
    }
}
