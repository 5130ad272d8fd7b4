// The host's own copies of the module package.
#pragma once

#include <string>

namespace nxahost {

// Keeps, in the folder .nxahost of the package directory, the copies through
// which the host installs the package: the package file is read once into a
// copy of the host's (incoming), that copy is checked, moved to where the
// library installs from (installDir()/nxa.zip), and, once its modules run,
// kept as the package that runs (running), so that an installation that fails
// can put the previous package back. Nobody else writes these files, so what
// is installed is what was checked, whatever happens to the package file.
class PackageStore {
public:
    // `packageDir`: where the package file nxa.zip is delivered. Touches
    // nothing yet.
    explicit PackageStore(std::string const& packageDir);

    // The package file as delivered, and the folder the library installs
    // from (the package directory to give NXAClient).
    std::string const& delivered() const { return delivered_; }
    std::string const& installDir() const { return installDir_; }
    // The copy taken by takeDelivered(), and a scratch folder for checking it.
    std::string const& incoming() const { return incoming_; }
    std::string const& checkDir() const { return checkDir_; }

    // Copies the delivered package to incoming() (see copyPackage; `limit`:
    // the largest package taken), making the store's folders first. Returns
    // what went wrong, or empty.
    std::string takeDelivered(unsigned long long limit) const;
    // Moves incoming() to where the library installs from.
    void stageIncoming() const;
    // Records the staged package as the one whose modules run.
    void keepStagedAsRunning() const;
    // Puts the package that ran back where the library installs from; false
    // when there is none (nothing has run yet).
    bool stageRunning() const;

private:
    std::string packageDir_;
    std::string delivered_;
    std::string stateDir_;
    std::string installDir_;
    std::string staged_;
    std::string incoming_;
    std::string running_;
    std::string checkDir_;
};

}  // namespace nxahost
