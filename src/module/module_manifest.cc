// NXAClient::Module::scan: whether a module's Manifest allows it on this machine.
#include <sys/stat.h>
#include <vlplatform/ini_parser.h>

#include <cerrno>
#include <ios>

#include "module_trace.h"
#include "nxaclient.h"

namespace {

using nxa::module::kScan;
using nxa::trace::kModule;

constexpr char kNoArch[] = "noarch";

// Whether a module built for `arch` may run on `machine`: "noarch" anywhere,
// the others only on the machines the table lists for them.
bool runsOn(std::string const& arch, std::string const& machine) {
    if (arch == kNoArch) return true;
    auto entry = NXAClient::Module::archmap.find(arch);
    return entry != NXAClient::Module::archmap.end() && entry->second.count(machine) != 0;
}

}  // namespace

bool NXAClient::Module::scan(std::string const& dir, std::string const& machinearch) const {
    std::string path = dir + "/" + name + "/" + NXA_MANIFEST;
    struct stat status;
    if (::stat(path.c_str(), &status) == -1) throw IOException(errno, path);
    try {
        return manifestFits(path, machinearch);
    } catch (std::ios_base::failure const& e) {
        // The one report on standard error, completed by the system's error text.
        nxa::trace::lineWithError(errno, nxa::trace::kError, kModule, __func__, "cannot parse ", path, ": ",
                                  e.what());
    } catch (VLException const& e) {
        NXA_ERROR(kModule, "cannot parse ", path, ": ", e);
    } catch (...) {
        NXA_ERROR(kModule, "unkown exception");  // misspelt on purpose: the text is fixed
    }
    return false;
}

// Reads the manifest at `path`. Both keys are required; a missing one is
// reported, a mismatch of name or architecture is not.
bool NXAClient::Module::manifestFits(std::string const& path, std::string const& machinearch) const {
    IniParser parser(path, NXAClient::debug);
    auto const& values = parser.values();
    auto moduleName = values.find(NXA_KEY_NAME);
    if (moduleName == values.end()) {
        NXA_ERROR_AS(kModule, kScan, "cannot find ", NXA_KEY_NAME, " in ", path);
        return false;
    }
    auto arch = values.find(NXA_KEY_ARCH);
    if (arch == values.end()) {
        // Names the manifest, not its path, unlike the line above: the texts are fixed.
        NXA_ERROR_AS(kModule, kScan, "cannot find ", NXA_KEY_ARCH, " in manifest");
        return false;
    }
    NXA_DEBUG_AS(kModule, kScan, "name=", moduleName->second, " arch=", arch->second,
                 ", _machinearch=", machinearch);
    return moduleName->second == name && runsOn(arch->second, machinearch);
}
