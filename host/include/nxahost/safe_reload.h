// Installing the module package so that a reload cannot lose the running
// modules: what is checked is what is installed, and an installation that
// fails puts the package that ran before back.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace nxahost {

class PackageStore;

// The package delivered as <packageDir>/nxa.zip is read once into a copy of
// the host's own, in <packageDir>/.nxahost; that copy is checked and is what
// the library installs: give installDir() to NXAClient as its package
// directory. The copy whose modules run is kept, so that an installation that
// fails can be undone. Nothing here stops or starts a module: `replace`, given
// by the host, does that.
class SafeReload {
public:
    // `modules`: the names whose modules a package must hold (the configured
    // ones the registry keeps). Touches nothing yet.
    SafeReload(std::string const& packageDir, std::vector<std::string> modules);
    ~SafeReload();
    SafeReload(SafeReload const&) = delete;
    SafeReload& operator=(SafeReload const&) = delete;

    // The folder the library installs the package from.
    std::string const& installDir() const;
    // The package as delivered.
    std::string const& delivered() const;

    // For the first installation: copies the delivered package to where the
    // library installs from. Throws std::runtime_error naming what went wrong
    // ("/var/opt/velmora/nxa.zip does not exist: No such file or directory",
    // "the package changed while it was read").
    void takeForStart();
    // The first installation has run: its package is the one that runs.
    void started();
    // For a reload: copies the delivered package and checks the copy (see
    // checkPackage). Returns what is wrong, the modules then being left as they
    // are; or empty, the copy then being where the library installs from.
    std::string takeForReload();
    // Installs what takeForReload() took by calling `replace`, which stops the
    // running modules and starts those of the package the library finds in
    // installDir(). When `replace` throws, writes one ERROR line ("reload
    // failed: ...; installing the package that ran before again"), puts that
    // package back and calls `replace` again; only when that throws too does
    // the exception leave (the host ends, as when the first installation
    // fails). An exception in a forked copy of the host is the caller's: see
    // `replace`.
    void install(std::function<void()> const& replace);

private:
    unsigned long long largestPackage() const;

    std::unique_ptr<PackageStore> store_;
    std::vector<std::string> modules_;
};

}  // namespace nxahost
