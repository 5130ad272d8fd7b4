// Which port each running module listens on.
#pragma once

#include <string>
#include <vector>

namespace nxahost {

struct ModulePort {
    std::string name;
    unsigned short port;
};

// The registry gives configured module k the port firstPort + k (wrapping
// after 65535) and keeps at most maxModules; the modules still installed after
// the manifest check are a subsequence of those, in the same order. Returns
// each installed module with its port.
std::vector<ModulePort> runningModulePorts(std::vector<std::string> const& configured,
                                           unsigned long maxModules, unsigned short firstPort,
                                           std::vector<std::string> const& installed);

// Throws std::runtime_error ("port <p> for module <name> is in use: <system
// text>") for the first configured module whose port cannot be bound now.
// A module whose port is taken would be constructed anyway, with an unbound
// socket that every wait reports ready: the host refuses to start instead.
// Port 0 (after a wrap) is not checked: the system picks a free one.
void requireFreePorts(std::vector<std::string> const& configured, unsigned long maxModules,
                      unsigned short firstPort);

}  // namespace nxahost
