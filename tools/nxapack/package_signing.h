// Signing the package nxapack writes.
#pragma once

#include <string>
#include <vector>

#include "module_source.h"

// How to sign: the minisign secret key, where its password is (empty: asked
// for on the terminal when the key has one), the version to name (empty: the
// newest module version).
struct Signing {
    std::string secretKeyFile;
    std::string passwordFile;
    std::string versionTag;
};

// The module's version as its Manifest says ("version"); empty when it says none.
std::string moduleVersion(ModuleSource const& module);

// Writes <package>.minisig, the signature of the package file with the key of
// `signing`, its trusted comment "timestamp:<unix time>\tfile:<name>\tversion:<v>",
// and says so on standard output. Throws std::runtime_error with a message for
// the user (the key unreadable or not minisign's, a wrong password, no
// terminal to ask for the password on, no version to name).
void signPackage(std::string const& package, std::vector<std::string> const& moduleVersions,
                 Signing const& signing);
