#include <nxahost/log.h>
#include <nxahost/package_check.h>
#include <nxahost/safe_reload.h>
#include <vlplatform/zipper.h>

#include <stdexcept>

#include "package_store.h"

namespace nxahost {

SafeReload::SafeReload(std::string const& packageDir, std::vector<std::string> modules)
    : store_(std::make_unique<PackageStore>(packageDir)), modules_(std::move(modules)) {}

SafeReload::~SafeReload() = default;

std::string const& SafeReload::installDir() const {
    return store_->installDir();
}

std::string const& SafeReload::delivered() const {
    return store_->delivered();
}

// A package larger than what may be unpacked could never be installed.
unsigned long long SafeReload::largestPackage() const {
    return zipper::unpackBudget(store_->installDir());
}

void SafeReload::takeForStart() {
    std::string const problem = store_->takeDelivered(largestPackage());
    if (!problem.empty()) throw std::runtime_error(problem);
    store_->stageIncoming();
}

void SafeReload::started() {
    store_->keepStagedAsRunning();
}

std::string SafeReload::takeForReload() {
    std::string problem = store_->takeDelivered(largestPackage());
    if (problem.empty())
        problem = checkPackage(store_->incoming(), modules_, store_->checkDir(), delivered());
    if (problem.empty()) store_->stageIncoming();
    return problem;
}

// An installation that fails after its check (a full disk, a port taken
// meanwhile) puts the package that ran before back.
void SafeReload::install(std::function<void()> const& replace) {
    try {
        replace();
        store_->keepStagedAsRunning();
        return;
    } catch (std::exception const& e) {
        if (!store_->stageRunning()) throw;
        hostLog(kHostError, "reload failed: ", e.what(), "; installing the package that ran before again");
    }
    replace();
}

}  // namespace nxahost
