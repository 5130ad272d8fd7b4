// Whether a module package can replace the running modules.
#pragma once

#include <string>
#include <vector>

namespace nxahost {

// Unpacks `package` into `scratch` (emptied first, removed afterwards) and
// looks for every module of `modules` in it: an inner archive "<name>.zip"
// that unpacks, holding a readable Manifest. Returns what is wrong, in words,
// naming the package `shownAs` ("/var/opt/velmora/nxa.zip cannot be
// unpacked", "the package holds no module echo", ...), or an empty text when
// the package is fine. Never throws for a bad package; the running modules
// are not touched.
std::string checkPackage(std::string const& package, std::vector<std::string> const& modules,
                         std::string const& scratch, std::string const& shownAs);

}  // namespace nxahost
