// Whether a module package can replace the running modules.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace nxahost {

// What a check found: what is wrong, in words (empty when the package is
// fine), and each module's version as its Manifest names it ("version";
// empty when it names none).
struct PackageCheck {
    std::string problem;
    std::map<std::string, std::string> versions;
};

// Unpacks `package` into `scratch` (emptied first, removed afterwards) and
// looks for every module of `modules` in it: an inner archive "<name>.zip"
// that unpacks, holding a readable Manifest. The problem names the package
// `shownAs` ("/var/opt/velmora/nxa.zip cannot be unpacked", "the package
// holds no module echo", ...). Never throws for a bad package; the running
// modules are not touched.
PackageCheck checkPackage(std::string const& package, std::vector<std::string> const& modules,
                          std::string const& scratch, std::string const& shownAs);

}  // namespace nxahost
