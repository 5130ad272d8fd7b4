// Module folders written by a test, and packages made of them with the real
// nxapack and zip, as a user makes them.
#pragma once

#include <string>
#include <vector>

#include "shell.h"

namespace e2e {

// Where the host looks for its package by default.
constexpr char kPackage[] = "/var/opt/velmora/nxa.zip";
// Where the host installs the modules by default.
constexpr char kModulesDir[] = "/var/opt/velmora/nxa";
// Where the host unpacks the package first.
constexpr char kUnpackDir[] = "/tmp/nxa";
// The host's own copies of the package, kept beside it.
constexpr char kStateDir[] = "/var/opt/velmora/.nxahost";
// The host's copy of the package, the one the library installs.
constexpr char kInstalledCopy[] = "/var/opt/velmora/.nxahost/install/nxa.zip";

// A Manifest as the build writes it.
std::string manifestText(std::string const& name, std::string const& arch);

// Writes the module folder <parent>/<name>: its Manifest (for `arch`) and its
// program <name>, a /bin/sh script made of `body`. Returns the folder.
std::string writeModule(std::string const& parent, std::string const& name, std::string const& arch,
                        std::string const& body);

// Runs `nxapack out inputs...` (standard output and error together).
nxatest::ShellResult runPack(std::string const& out, std::vector<std::string> const& inputs);

// Packs `inputs` with nxapack into the host's package (kPackage); fails the
// test when nxapack fails.
void installPackage(std::vector<std::string> const& inputs);

// Runs `zip -q -r archive entries...` in `dir`; fails the test when zip fails.
void zipIn(std::string const& dir, std::string const& archive, std::string const& entries);

// The names in `dir` (without "." and ".."), sorted; empty when it cannot be read.
std::vector<std::string> listDir(std::string const& dir);

// A shell word for `text`.
std::string quoted(std::string const& text);

}  // namespace e2e
