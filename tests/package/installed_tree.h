// The project installed the way a device maker's build machine has it: the
// build tree put into a fresh prefix with `cmake --install`, and the tools to
// look at and build against it.
#pragma once

#include <string>

#include "shell.h"

namespace pkgtest {

// A new, empty folder /var/opt/<what>.XXXXXX (private to the sandbox).
std::string freshDir(std::string const& what);

// `cmake --install <build tree> --prefix <prefix>`, with `env` ("NAME=value
// ..." words, e.g. DESTDIR) before it. Fails the test fatally when it fails.
void installInto(std::string const& prefix, std::string const& env = "");

// The installed library directory, <prefix>/lib/<multiarch>.
std::string libDir(std::string const& prefix);

// The project's version, "major.minor.patch".
std::string projectVersion();

// The compiler flags a program built against a sanitized library needs
// (empty in a normal build).
std::string sanitizeFlags();

// The C++ compiler the project was built with.
std::string compiler();

// Whether `path` exists.
bool exists(std::string const& path);

// Configures the CMake project in `source` into `build` the way a consumer
// does, with CMAKE_PREFIX_PATH `prefix` and `args` added. Standard output and
// error together.
nxatest::ShellResult configureConsumer(std::string const& source, std::string const& build,
                                       std::string const& prefix, std::string const& args = "");

// `text` without blanks and line feeds at its ends.
std::string trimmed(std::string const& text);

}  // namespace pkgtest
