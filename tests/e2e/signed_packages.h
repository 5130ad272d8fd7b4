// Packages as a release builds them: module folders packed with nxapack and
// signed with the minisign program, delivered where the host looks.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace e2e {

// A module of a package: its name and its program's shell body.
struct ModuleSource {
    std::string name;
    std::string body;
};

// Makes the minisign key pair <scratch>/<name>.key and <dir>/<name>.pub
// without a password (`dir`: the scratch folder when empty).
void makeKeyPair(std::string const& name, std::string const& dir = "");

// The key id minisign wrote in the comment line of the public key file
// `pub` (a path, or a name in the scratch folder).
std::string printedKeyId(std::string const& pub);

// Packs the modules, each with a Manifest naming `version`, into
// <scratch>/<package>.zip with nxapack; returns the file.
std::string packVersion(std::string const& package, std::string const& version,
                        std::vector<ModuleSource> const& modules);

// Signs `file` with minisign and the key <scratch>/<key>.key (file.minisig).
void signWithMinisign(std::string const& file, std::string const& key);

// Copies `file` to the host's package file, with its signature when it has
// one; a signature left from before is removed.
void deliver(std::string const& file);

}  // namespace e2e
