// The device's fixed places and numbers as the tools see them. nxahost,
// nxabuild, nxactl and nxapack take them from here instead of keeping copies.
// The values are those the library and the device are built around; the
// library does not publish them, so this header holds them for the tools alone.
#pragma once

#include <cstddef>
#include <string>

namespace nxatools {

// The bus broker's port on 127.0.0.1; every module's bus connection goes there.
inline constexpr unsigned short kBusPort = 20010;

// Where the host looks for the package kPackageFile.
inline constexpr char kPackageDir[] = "/var/opt/velmora";
// The package file the host installs (the library's NXA_ZIP).
inline constexpr char kPackageFile[] = "nxa.zip";
// Where the modules are installed and checked: the one directory the library
// starts every module's program from, whatever modules directory it is given.
inline constexpr char kModulesDir[] = "/var/opt/velmora/nxa";
// The build workspace.
inline constexpr char kWorkDir[] = "/var/opt/velmora/work";
// The build's shared data directory: the module Makefile and the files a
// workspace links to.
inline constexpr char kDataDir[] = "/opt/velmora/share/nxa";

// A module's bus name is this prefix followed by the module's name.
inline constexpr char kModuleBusPrefix[] = "NXAModule_";

// The bus name of the module `module`: the participant to which
// "71-NXAStartOutput" and "72-NXAStopOutput" are sent.
inline std::string moduleBusName(std::string const& module) {
    return kModuleBusPrefix + module;
}

// The TCP port of the first module.
inline constexpr unsigned short kFirstModulePort = 20100;

// The port of module k (from 0, in configuration order) when the first module
// listens on firstPort: firstPort + k, wrapping after 65535 to 0 (with which
// the system picks any free port).
constexpr unsigned short modulePort(unsigned short firstPort, std::size_t k) {
    return static_cast<unsigned short>((firstPort + k) % 65536);
}

}  // namespace nxatools
