// The host's own copies of the module package.
#pragma once

#include <string>

namespace nxahost {

// Keeps, in the folder .nxahost of the package directory, the copies through
// which the host installs the package: the package file is read once into a
// copy of the host's (incoming, with its signature file when there is one),
// that copy is checked, moved to where the library installs from
// (installDir()/nxa.zip), and, once its modules run, kept as the package that
// runs (running); the one that passed its probation is kept as a good copy
// named by its hash (good/<hash>.zip), written before the record names it
// and the older ones removed after, so that whatever the record names as the
// last good package is there. Nobody else writes these files, so what is installed is what was
// checked, whatever happens to the package file. Each file is written whole
// and synced before it is renamed into place, and the copies after the first
// are second names of it, so a power cut leaves every name complete.
class PackageStore {
public:
    // `packageDir`: where the package file nxa.zip is delivered. Touches
    // nothing yet.
    explicit PackageStore(std::string const& packageDir);

    // The package file as delivered, and the folder the library installs
    // from (the package directory to give NXAClient).
    std::string const& delivered() const { return delivered_; }
    std::string const& installDir() const { return installDir_; }
    // The copy taken by takeDelivered() and its signature's, and a scratch
    // folder for checking it.
    std::string const& incoming() const { return incoming_; }
    std::string incomingSignature() const { return incoming_ + ".minisig"; }
    std::string const& checkDir() const { return checkDir_; }
    // The copy of the package whose modules run (there once one has run).
    std::string const& running() const { return running_; }
    // The record of the packages (see PackageRecord).
    std::string const& recordPath() const { return record_; }

    // Copies the delivered package to incoming() (see copyPackage; `limit`:
    // the largest package taken), and its signature file (nxa.zip.minisig)
    // beside it when there is one, making the store's folders first. Returns
    // what went wrong, or empty.
    std::string takeDelivered(unsigned long long limit) const;
    // Moves incoming() (and its signature) to where the library installs from.
    void stageIncoming() const;
    // Records the staged package as the one whose modules run.
    void keepStagedAsRunning() const;
    // Puts the package that ran back where the library installs from; false
    // when there is none (nothing has run yet).
    bool stageRunning() const;
    // Keeps the running package (and its signature) as the good copy of the
    // package whose hash is `hash`.
    void keepRunningAsGood(std::string const& hash) const;
    // Puts the good copy of `hash` where the library installs from; false
    // when there is none.
    bool stageGood(std::string const& hash) const;
    bool hasGood(std::string const& hash) const;
    // Removes every good copy but that of `hash` (all of them when empty).
    void dropGoodExcept(std::string const& hash) const;

private:
    std::string packageDir_;
    std::string delivered_;
    std::string stateDir_;
    std::string installDir_;
    std::string staged_;
    std::string incoming_;
    std::string running_;
    std::string goodDir_;
    std::string checkDir_;
    std::string record_;

    std::string goodCopy(std::string const& hash) const;
};

}  // namespace nxahost
