#include "package_store.h"

#include <nxahost/package_copy.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/fs.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace nxahost {
namespace {

// Replaces `to` by a second name of `from`: `to` never goes missing meanwhile.
void linkOver(std::string const& from, std::string const& to) {
    std::string const part = to + ".part";
    ::unlink(part.c_str());
    if (::link(from.c_str(), part.c_str()) != 0)
        throw IOException(errno, "cannot link " + from + " to " + part);
    if (::rename(part.c_str(), to.c_str()) != 0) throw IOException(errno, "cannot rename " + part);
}

}  // namespace

PackageStore::PackageStore(std::string const& packageDir)
    : packageDir_(packageDir),
      delivered_(packageDir + "/nxa.zip"),
      stateDir_(packageDir + "/.nxahost"),
      installDir_(stateDir_ + "/install"),
      staged_(installDir_ + "/nxa.zip"),
      incoming_(stateDir_ + "/incoming.zip"),
      running_(stateDir_ + "/running.zip"),
      checkDir_(stateDir_ + "/check") {}

// The folders are made only for a package that is there: a missing one is
// reported by the copy, and nothing is written.
std::string PackageStore::takeDelivered(unsigned long long limit) const {
    if (::access(delivered_.c_str(), F_OK) == 0 && mkdirPath(installDir_, 0755) != 0)
        return "cannot create " + installDir_ + ": " + std::strerror(errno);
    return copyPackage(delivered_, incoming_, limit);
}

void PackageStore::stageIncoming() const {
    if (::rename(incoming_.c_str(), staged_.c_str()) != 0)
        throw IOException(errno, "cannot move " + incoming_ + " to " + staged_);
}

void PackageStore::keepStagedAsRunning() const {
    linkOver(staged_, running_);
}

bool PackageStore::stageRunning() const {
    if (::access(running_.c_str(), F_OK) != 0) return false;
    linkOver(running_, staged_);
    return true;
}

}  // namespace nxahost
