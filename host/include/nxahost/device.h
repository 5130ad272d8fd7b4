// The device's fixed places and numbers: where the package is delivered and
// the modules run from, the bus broker's port, the modules' ports and bus
// names. The host kit, nxahost, nxabuild, nxactl and nxapack take them from
// here instead of keeping copies. The values are those the library and the
// device are built around; where the library publishes one, it is used.
#pragma once

#include <nxaclient.h>

#include <cstddef>
#include <string>

namespace nxahost {

// The bus broker's port on 127.0.0.1; every module's bus connection goes there.
inline constexpr unsigned short kBusPort = NXAClient::NXA_BUS_PORT;

// Where the host looks for the package kPackageFile.
inline constexpr char kPackageDir[] = "/var/opt/velmora";
// The package file the host installs (the library's NXA_ZIP).
inline constexpr char const* kPackageFile = NXAClient::NXA_ZIP;
// Where the modules are installed and checked: the one directory the library
// starts every module's program from, whatever modules directory it is given.
inline constexpr char kModulesDir[] = "/var/opt/velmora/nxa";
// The build workspace.
inline constexpr char kWorkDir[] = "/var/opt/velmora/work";
// The build's shared data directory: the module Makefile and the files a
// workspace links to.
inline constexpr char kDataDir[] = "/opt/velmora/share/nxa";

// The bus name of the module `module`: the participant to which
// "71-NXAStartOutput" and "72-NXAStopOutput" are sent.
inline std::string moduleBusName(std::string const& module) {
    return NXAClient::NXA_MODULE_BUS_PREFIX + module;
}

// The TCP port of the first module.
inline constexpr unsigned short kFirstModulePort = 20100;

// The port of module k (from 0, in configuration order) when the first module
// listens on firstPort: firstPort + k, wrapping after 65535 to 0 (with which
// the system picks any free port).
constexpr unsigned short modulePort(unsigned short firstPort, std::size_t k) {
    return static_cast<unsigned short>((firstPort + k) % 65536);
}

}  // namespace nxahost
