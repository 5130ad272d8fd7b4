#include "package_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <nxahost/minisign.h>
#include <nxahost/package_copy.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/exceptions.h>
#include <vlplatform/fs.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace nxahost {
namespace {

constexpr char kSignature[] = ".minisig";

void syncFolder(std::string const& folder) {
    int const fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

std::string folderOf(std::string const& path) {
    return path.substr(0, path.rfind('/'));
}

// Replaces `to` by a second name of `from` (when `from` is there; otherwise
// `to` goes too): `to` never goes missing meanwhile.
void linkOver(std::string const& from, std::string const& to) {
    if (::access(from.c_str(), F_OK) != 0) {
        ::unlink(to.c_str());
        return;
    }
    std::string const part = to + ".part";
    ::unlink(part.c_str());
    if (::link(from.c_str(), part.c_str()) != 0)
        throw IOException(errno, "cannot link " + from + " to " + part);
    if (::rename(part.c_str(), to.c_str()) != 0) throw IOException(errno, "cannot rename " + part);
    syncFolder(folderOf(to));
}

// Copies at most `most` bytes of the regular file `from` to `to`; nothing
// when `from` is missing or no regular file. A signature is small: one that
// is larger shows as larger than `most` - 1 when it is checked.
void copyHead(std::string const& from, std::string const& to, std::size_t most) {
    int const in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (in < 0) return;
    struct stat info {};
    std::string bytes(most, '\0');
    ssize_t n = ::fstat(in, &info) == 0 && S_ISREG(info.st_mode) ? ::read(in, bytes.data(), most) : -1;
    ::close(in);
    if (n < 0) return;
    bytes.resize(static_cast<std::size_t>(n));
    int const out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) return;
    (void)!::write(out, bytes.data(), bytes.size());
    ::fsync(out);
    ::close(out);
}

void moveOver(std::string const& from, std::string const& to) {
    if (::access(from.c_str(), F_OK) != 0) {
        ::unlink(to.c_str());
        return;
    }
    if (::rename(from.c_str(), to.c_str()) != 0)
        throw IOException(errno, "cannot move " + from + " to " + to);
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
      goodDir_(stateDir_ + "/good"),
      checkDir_(stateDir_ + "/check"),
      record_(stateDir_ + "/package.json") {}

// The folders are made only for a package that is there: a missing one is
// reported by the copy, and nothing is written. A signature larger than any
// is copied in part, so that its check says it is too large.
std::string PackageStore::takeDelivered(unsigned long long limit) const {
    if (::access(delivered_.c_str(), F_OK) == 0 && mkdirPath(installDir_, 0755) != 0)
        return "cannot create " + installDir_ + ": " + std::strerror(errno);
    std::string problem = copyPackage(delivered_, incoming_, limit);
    if (!problem.empty()) return problem;
    ::unlink(incomingSignature().c_str());
    copyHead(delivered_ + kSignature, incomingSignature(), minisign::kMaxSignatureBytes + 1);
    return {};
}

void PackageStore::stageIncoming() const {
    moveOver(incomingSignature(), staged_ + kSignature);
    if (::rename(incoming_.c_str(), staged_.c_str()) != 0)
        throw IOException(errno, "cannot move " + incoming_ + " to " + staged_);
    syncFolder(installDir_);
}

void PackageStore::keepStagedAsRunning() const {
    linkOver(staged_ + kSignature, running_ + kSignature);
    linkOver(staged_, running_);
}

bool PackageStore::stageRunning() const {
    if (::access(running_.c_str(), F_OK) != 0) return false;
    linkOver(running_ + kSignature, staged_ + kSignature);
    linkOver(running_, staged_);
    return true;
}

std::string PackageStore::goodCopy(std::string const& hash) const {
    return goodDir_ + "/" + hash + ".zip";
}

void PackageStore::keepRunningAsGood(std::string const& hash) const {
    if (mkdirPath(goodDir_, 0755) != 0) throw IOException(errno, "cannot create " + goodDir_);
    linkOver(running_ + kSignature, goodCopy(hash) + kSignature);
    linkOver(running_, goodCopy(hash));
}

bool PackageStore::stageGood(std::string const& hash) const {
    if (!hasGood(hash)) return false;
    linkOver(goodCopy(hash) + kSignature, staged_ + kSignature);
    linkOver(goodCopy(hash), staged_);
    return true;
}

bool PackageStore::hasGood(std::string const& hash) const {
    return !hash.empty() && ::access(goodCopy(hash).c_str(), F_OK) == 0;
}

void PackageStore::dropGoodExcept(std::string const& hash) const {
    DIR* dir = ::opendir(goodDir_.c_str());
    if (dir == nullptr) return;
    std::string const keep = hash.empty() ? std::string("/") : hash + ".zip";
    while (dirent const* entry = ::readdir(dir)) {
        std::string const name = entry->d_name;
        if (name == "." || name == ".." || name == keep || name == keep + kSignature) continue;
        ::unlinkat(::dirfd(dir), name.c_str(), 0);
    }
    ::closedir(dir);
    syncFolder(goodDir_);
}

}  // namespace nxahost
