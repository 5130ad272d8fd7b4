#include <nxahost/log.h>
#include <nxahost/minisign.h>
#include <nxahost/package_check.h>
#include <nxahost/safe_reload.h>
#include <nxahost/versions.h>
#include <vlplatform/zipper.h>

#include <ctime>
#include <stdexcept>

#include "package_store.h"

namespace nxahost {
namespace {

long long wallSeconds() {
    return static_cast<long long>(std::time(nullptr));
}

// "2.0", or "an unnamed version" for a package that names none.
std::string named(PackageInfo const& info) {
    return info.version.empty() ? "of no version" : info.version;
}

std::string packageVersion(PackageInfo const& info) {
    std::string const tagged = trustedCommentField(info.trustedComment, "version");
    if (!tagged.empty()) return tagged;
    std::vector<std::string> versions;
    for (auto const& entry : info.moduleVersions) versions.push_back(entry.second);
    return newestVersion(versions);
}

}  // namespace

SafeReload::SafeReload(Setup setup, Clock const& clock)
    : setup_(std::move(setup)),
      clock_(clock),
      store_(std::make_unique<PackageStore>(setup_.packageDir)),
      checking_(!setup_.keys.empty()) {
    std::string problem;
    record_ = PackageRecord::load(store_->recordPath(), problem);
    if (!problem.empty()) hostLog(kHostWarning, problem);
    // Copies a power cut left behind, named by no record.
    store_->dropGoodExcept(record_.lastGood ? record_.lastGood->hash : "");
}

SafeReload::~SafeReload() = default;

std::string const& SafeReload::installDir() const {
    return store_->installDir();
}

std::string const& SafeReload::delivered() const {
    return store_->delivered();
}

std::string const& SafeReload::runningCopy() const {
    return store_->running();
}

// A package larger than what may be unpacked could never be installed.
unsigned long long SafeReload::largestPackage() const {
    return zipper::unpackBudget(store_->installDir());
}

void SafeReload::takeForStart() {
    PackageInfo info;
    std::string const problem = take(false, info);
    if (problem.empty()) {
        store_->stageIncoming();
        taken_ = info;
        return;
    }
    if (!record_.lastGood || !store_->stageGood(record_.lastGood->hash)) throw std::runtime_error(problem);
    hostLog(kHostError, "the package ", delivered(), " is refused: ", problem,
            "; starting the last good package ", named(*record_.lastGood), " instead");
    taken_ = *record_.lastGood;
    record_.note({wallSeconds(), "fell back", record_.lastGood->version, record_.lastGood->hash, problem});
}

void SafeReload::started() {
    if (!taken_) return;
    store_->keepStagedAsRunning();
    installed(*taken_, "installed");
    taken_.reset();
}

std::string SafeReload::takeForReload(bool allowDowngrade) {
    PackageInfo info;
    std::string const problem = take(allowDowngrade, info);
    if (!problem.empty()) return problem;
    store_->stageIncoming();
    taken_ = info;
    return {};
}

// The copy, then its signature (before anything is unpacked), a package
// rolled back, its modules and their versions.
std::string SafeReload::take(bool allowDowngrade, PackageInfo& info) {
    std::string problem = store_->takeDelivered(largestPackage());
    if (!problem.empty()) return problem;
    // One pass over the package: its hash names it and is what its signature signs.
    minisign::FileHash const hash = minisign::hashFile(store_->incoming());
    info.hash = minisign::hashText(hash);
    problem = signatureProblem(info, hash);
    if (!problem.empty()) return problem;
    if (record_.rolledBack.count(info.hash) != 0)
        return "this package (blake2b " + info.hash.substr(0, 12) +
               ") was rolled back; it is taken again only once another file replaces it";
    PackageCheck const check =
        checkPackage(store_->incoming(), setup_.modules, store_->checkDir(), delivered());
    if (!check.problem.empty()) return check.problem;
    info.moduleVersions = check.versions;
    info.version = packageVersion(info);
    return versionProblem(info, allowDowngrade);
}

std::string SafeReload::signatureProblem(PackageInfo& info, minisign::FileHash const& hash) {
    if (!setup_.keysDir.empty()) {
        setup_.keys = TrustedKeys::load(setup_.keysDir);
        checking_ = checking_ || !setup_.keys.empty();
    }
    if (!checksSignatures()) return {};
    if (setup_.keys.empty()) return "no usable trusted key is left in " + setup_.keysDir;
    PackageSigner signer;
    std::string const problem =
        verifyPackage(store_->incoming(), hash, store_->incomingSignature(), setup_.keys, signer);
    if (!problem.empty()) return problem;
    info.keyId = signer.keyId;
    info.trustedComment = signer.trustedComment;
    return {};
}

// Versions only go forward, and only for packages whose signature was checked.
std::string SafeReload::versionProblem(PackageInfo const& info, bool allowDowngrade) const {
    if (!checksSignatures() || allowDowngrade) return {};
    for (auto const& [module, version] : info.moduleVersions) {
        auto const floor = record_.versions.find(module);
        if (floor == record_.versions.end()) continue;
        if (!isDottedVersion(version))
            return "module " + module + " names version '" + version + "', which is not dotted numbers";
        if (compareVersions(version, floor->second) < 0)
            return "module " + module + " would go from version " + floor->second + " back to " + version +
                   " (nxactl reload --allow-downgrade allows it for one reload)";
    }
    return {};
}

// An installation that fails after its check (a full disk, a port taken
// meanwhile) puts the package that ran before back.
void SafeReload::install(std::function<void()> const& replace) {
    try {
        replace();
        store_->keepStagedAsRunning();
        if (taken_) installed(*taken_, "installed");
        taken_.reset();
        return;
    } catch (std::exception const& e) {
        taken_.reset();
        if (!store_->stageRunning()) throw;
        hostLog(kHostError, "reload failed: ", e.what(), "; installing the package that ran before again");
    }
    replace();
}

void SafeReload::installed(PackageInfo info, std::string const& event) {
    info.installedAt = wallSeconds();
    record_.installed = info;
    record_.note({info.installedAt, event, info.version, info.hash, {}});
    bool const good = record_.lastGood && record_.lastGood->hash == info.hash;
    if (good) {
        record_.probationUntil.reset();
        probationEnd_.reset();
    } else {
        beginProbation();
    }
    save();
}

void SafeReload::beginProbation() {
    failures_.clear();
    probationEnd_ = clock_.now() + setup_.probation;
    record_.probationUntil = wallSeconds() + setup_.probation.count();
}

std::optional<Clock::time_point> SafeReload::probationEnd() const {
    return probationEnd_;
}

bool SafeReload::endProbationIfDue() {
    if (!probationEnd_ || clock_.now() < *probationEnd_ || !record_.installed) return false;
    probationEnd_.reset();
    record_.probationUntil.reset();
    PackageInfo const& good = *record_.installed;
    // The copy first, then the record that names it, then the older copy.
    store_->keepRunningAsGood(good.hash);
    record_.lastGood = good;
    if (checksSignatures()) {
        for (auto const& [module, version] : good.moduleVersions) {
            std::string& floor = record_.versions[module];
            if (isDottedVersion(version) && (floor.empty() || compareVersions(version, floor) > 0))
                floor = version;
        }
    }
    record_.note({wallSeconds(), "passed probation", good.version, good.hash, {}});
    save();
    store_->dropGoodExcept(good.hash);
    hostLog(kHostInfo, "package ", named(good), " passed its probation: it is the last good package now");
    return true;
}

std::string SafeReload::programFailed(std::string const& module, std::string const& how) {
    if (!probationEnd_ || clock_.now() >= *probationEnd_) return {};
    unsigned const count = ++failures_[module];
    if (count < setup_.probationFailures) return {};
    return "module " + module + " ended " + std::to_string(count) + " times within " +
           std::to_string(setup_.probation.count()) + " s (" + how + ")";
}

bool SafeReload::rollBack(std::string const& reason, std::function<void()> const& replace) {
    probationEnd_.reset();
    record_.probationUntil.reset();
    if (!record_.lastGood || !record_.installed || !store_->stageGood(record_.lastGood->hash)) {
        hostLog(kHostError, "the package on probation fails: ", reason,
                "; there is no last good package to go back to");
        save();
        return false;
    }
    PackageInfo const bad = *record_.installed;
    PackageInfo const good = *record_.lastGood;
    // Said before the modules are replaced: a power cut meanwhile must not
    // install the failing package again.
    record_.rolledBack.insert(bad.hash);
    record_.note({wallSeconds(), "rolled back", bad.version, bad.hash, reason});
    save();
    hostLog(kHostError, "reload rolled back: ", reason, "; package ", named(bad), " replaced by ",
            named(good));
    replace();
    store_->keepStagedAsRunning();
    installed(good, "installed");
    return true;
}

void SafeReload::save() {
    try {
        record_.save(store_->recordPath());
    } catch (std::exception const& e) {
        hostLog(kHostError, "cannot keep the record of packages: ", e.what());
    }
}

nlohmann::json SafeReload::describe() const {
    nlohmann::json out = record_.toJson();
    out["checked"] = checksSignatures();
    if (probationEnd_) {
        auto const left = std::chrono::duration<double>(*probationEnd_ - clock_.now()).count();
        out["probation_left"] = left > 0 ? left : 0.0;
    }
    return out;
}

}  // namespace nxahost
