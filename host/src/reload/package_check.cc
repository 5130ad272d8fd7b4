#include <nxahost/package_check.h>
#include <sys/stat.h>
#include <vlplatform/fs.h>
#include <vlplatform/ini_parser.h>
#include <vlplatform/zipper.h>

#include <exception>

namespace nxahost {
namespace {

std::string checkModule(std::string const& name, std::string const& unpacked, std::string const& modules,
                        std::string& version) {
    std::string const archive = unpacked + "/" + name + ".zip";
    struct stat info {};
    if (stat(archive.c_str(), &info) != 0) return "the package holds no module " + name;
    std::string const folder = modules + "/" + name;
    if (zipper::unZipWithDirs(archive, folder, "") == -1) return "module " + name + " cannot be unpacked";
    try {
        IniParser manifest(folder + "/Manifest", 0);
        auto const named = manifest.values().find("version");
        if (named != manifest.values().end()) version = named->second;
    } catch (std::exception const&) {
        return "module " + name + " has no readable Manifest";
    }
    return {};
}

std::string checkUnpacked(std::string const& package, std::vector<std::string> const& modules,
                          std::string const& scratch, std::string const& shownAs,
                          std::map<std::string, std::string>& versions) {
    struct stat info {};
    if (stat(package.c_str(), &info) != 0) return shownAs + " does not exist";
    std::string const unpacked = scratch + "/package";
    if (zipper::unZipWithDirs(package, unpacked, "") == -1) return shownAs + " cannot be unpacked";
    for (std::string const& name : modules) {
        std::string problem = checkModule(name, unpacked, scratch + "/modules", versions[name]);
        if (!problem.empty()) return problem;
    }
    return {};
}

}  // namespace

PackageCheck checkPackage(std::string const& package, std::vector<std::string> const& modules,
                          std::string const& scratch, std::string const& shownAs) {
    rmDir(scratch, true);
    PackageCheck check;
    check.problem = checkUnpacked(package, modules, scratch, shownAs, check.versions);
    rmDir(scratch, true);
    return check;
}

}  // namespace nxahost
