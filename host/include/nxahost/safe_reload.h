// Installing the module package so that a reload cannot lose the running
// modules nor brick the device: what is checked is what is installed, a
// signature is checked before anything is unpacked, versions only go forward,
// and a package whose programs keep failing is replaced by the last good one.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "clock.h"
#include "package_record.h"
#include "trusted_keys.h"

namespace nxahost {

class PackageStore;

// The package delivered as <packageDir>/nxa.zip is read once into a copy of
// the host's own, in <packageDir>/.nxahost; that copy is checked and is what
// the library installs: give installDir() to NXAClient as its package
// directory. Nothing here stops or starts a module: `replace`, given by the
// host, does that.
//
// With trusted keys, a package is taken only with a valid signature by one of
// them (<packageDir>/nxa.zip.minisig), checked before anything of it is
// unpacked, and a package that would install an older version of a module
// than one that passed probation is refused unless allowed for one reload.
// After an installation, the package is on probation: a module whose program
// fails `probationFailures` times within `probation` (or cannot be started)
// makes the host go back to the last good package, the last that passed its
// probation; a package that passes becomes the last good one. A package
// rolled back is not taken again until another file replaces it. What it
// knows survives restarts (PackageRecord, in .nxahost/package.json).
class SafeReload {
public:
    struct Setup {
        std::string packageDir;
        // The names whose modules a package must hold.
        std::vector<std::string> modules;
        // Without keys, signatures and versions are not checked.
        TrustedKeys keys;
        // Where `keys` came from: read again for every reload, so keys rotate
        // without a restart (a folder left without a usable key then refuses
        // every package rather than stop checking). Empty: `keys` stay.
        std::string keysDir;
        std::chrono::seconds probation{60};
        unsigned probationFailures = 3;
    };

    // Reads the record; touches nothing else. `clock` must outlive this.
    SafeReload(Setup setup, Clock const& clock);
    ~SafeReload();
    SafeReload(SafeReload const&) = delete;
    SafeReload& operator=(SafeReload const&) = delete;

    // The folder the library installs the package from.
    std::string const& installDir() const;
    // The package as delivered.
    std::string const& delivered() const;
    // The host's copy of the package whose modules run; the file is not
    // there before a package has run.
    std::string const& runningCopy() const;
    // Whether packages must be signed by a trusted key.
    bool checksSignatures() const { return checking_; }

    // For the first installation: takes the delivered package as a reload
    // does (the copy, its signature, its check, its versions; a package rolled
    // back is refused). When it is refused and there is a last good package,
    // that one is taken instead and one ERROR line says why; otherwise throws
    // std::runtime_error naming what went wrong ("/var/opt/velmora/nxa.zip
    // does not exist: No such file or directory").
    void takeForStart();
    // The first installation has run: its package is the one that runs, on
    // probation unless it is the last good one.
    void started();
    // For a reload: takes and checks the delivered package. Returns what is
    // wrong (the modules then left as they are), or empty, the copy then being
    // where the library installs from. `allowDowngrade` lets a module's version
    // go back for this one reload.
    std::string takeForReload(bool allowDowngrade = false);
    // Installs what takeForReload() took by calling `replace`, which stops the
    // running modules and starts those of the package the library finds in
    // installDir(); the package is then on probation. When `replace` throws,
    // writes one ERROR line ("reload failed: ...; installing the package that
    // ran before again"), puts that package back and calls `replace` again;
    // only when that throws too does the exception leave (the host ends, as
    // when the first installation fails).
    void install(std::function<void()> const& replace);

    // When the probation ends, while one runs.
    std::optional<Clock::time_point> probationEnd() const;
    // When the probation's end has come: the installed package becomes the
    // last good one (one INFO line). Returns whether it did.
    bool endProbationIfDue();
    // A module's program ended with a failure, or could not be started (`how`:
    // "exit status 1", "signal 9", "cannot start: ..."). During a probation,
    // returns why to roll back once the module has failed probationFailures
    // times within it ("module echo ended 3 times within 60 s (exit status
    // 1)"); otherwise empty.
    std::string programFailed(std::string const& module, std::string const& how);
    // Installs the last good package with `replace` (as a reload does) and
    // says so in one ERROR line ("reload rolled back: <reason>; package 2.0
    // replaced by 1.4"). False, with an ERROR line, when there is none to go
    // back to. The package rolled back is not taken again by a plain reload.
    bool rollBack(std::string const& reason, std::function<void()> const& replace);

    // What the operator is shown (nxactl package): the installed package,
    // the probation, the last good package and the latest events.
    nlohmann::json describe() const;
    PackageRecord const& record() const { return record_; }

private:
    std::string take(bool allowDowngrade, PackageInfo& info);
    std::string signatureProblem(PackageInfo& info, minisign::FileHash const& hash);
    std::string versionProblem(PackageInfo const& info, bool allowDowngrade) const;
    void installed(PackageInfo info, std::string const& event);
    void beginProbation();
    void save();
    unsigned long long largestPackage() const;

    Setup setup_;
    Clock const& clock_;
    std::unique_ptr<PackageStore> store_;
    PackageRecord record_;
    // The package taken and not yet installed.
    std::optional<PackageInfo> taken_;
    std::optional<Clock::time_point> probationEnd_;
    std::map<std::string, unsigned> failures_;
    bool checking_ = false;
};

}  // namespace nxahost
