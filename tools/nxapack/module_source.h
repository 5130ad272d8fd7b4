// One module given to nxapack: a module folder, or a zip of one.
#pragma once

#include <string>

// Where a module's files are and what it is called. A folder is taken as it is
// and named after itself. A zip is extracted into `scratch`: when it holds one
// top-level folder and nothing else (as a development package does), that
// folder is the module and gives the name; otherwise the zip's top level is the
// module, named after the zip without ".zip".
struct ModuleSource {
    std::string name;
    std::string dir;
};

// Throws std::runtime_error with a message for the user when `input` is
// neither a folder nor a zip that can be extracted.
ModuleSource locateModule(std::string const& input, std::string const& scratch);

// Throws std::runtime_error when the module would not run: no Manifest, a
// Manifest that does not parse or names another module, or no program named
// like the module. Returns a warning text (empty when there is none) for
// problems the host tolerates, such as a program without execute permission.
std::string checkModule(ModuleSource const& module);
