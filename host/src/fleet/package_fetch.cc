#include <dirent.h>
#include <fcntl.h>
#include <nxahost/package_fetch.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace nxahost {

namespace {

constexpr std::uint64_t kLargestSignature = 64 * 1024;

void makeFolder(std::string const& folder) {
    if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        throw std::runtime_error("cannot make " + folder + ": " + std::strerror(errno));
}

// Removes what `folder` holds besides the files named in `keep`.
void removeOthers(std::string const& folder, std::string const& package) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) throw std::runtime_error("cannot read " + folder + ": " + std::strerror(errno));
    while (dirent* entry = readdir(dir)) {
        std::string const name = entry->d_name;
        if (name == "." || name == ".." || name == package || name == package + ".minisig") continue;
        unlink((folder + "/" + name).c_str());
    }
    closedir(dir);
}

}  // namespace

PackageFetch::PackageFetch(DesiredPackage wanted, std::string const& folder, std::string caFile,
                           Clock const& clock, Jitter& jitter)
    : wanted_(std::move(wanted)), caFile_(std::move(caFile)), clock_(clock), jitter_(jitter) {
    makeFolder(folder);
    std::string const name = wanted_.sha256 + ".zip";
    removeOthers(folder, name);
    packagePath_ = folder + "/" + name;
    DownloadRequest request;
    request.url = wanted_.packageUrl;
    request.path = packagePath_;
    request.size = wanted_.size;
    request.sha256 = wanted_.sha256;
    request.caFile = caFile_;
    package_ = std::make_unique<Download>(request, clock_, jitter_);
    nextStep();
}

PackageFetch::~PackageFetch() = default;

int PackageFetch::addFds(FdSet& rd, FdSet& wr, int timeoutMs) const {
    if (state_ != State::fetching) return timeoutMs;
    Download const& current = signature_ ? *signature_ : *package_;
    return current.addFds(rd, wr, timeoutMs);
}

void PackageFetch::serve(FdSet const& rd, FdSet const& wr) {
    if (state_ != State::fetching) return;
    (signature_ ? *signature_ : *package_).serve(rd, wr);
    nextStep();
}

// The package, then its signature, each once the one before is done.
void PackageFetch::nextStep() {
    if (package_->state() == Download::State::failed) {
        state_ = State::failed;
        reason_ = "the package: " + package_->reason();
        return;
    }
    if (package_->state() != Download::State::done) return;
    if (!signature_) {
        DownloadRequest request;
        request.url = wanted_.signatureUrl;
        request.path = signaturePath();
        request.size = kLargestSignature;
        request.sizeIsExact = false;
        request.caFile = caFile_;
        // What an earlier host left of it may be cut short: it is small.
        unlink(request.path.c_str());
        signature_ = std::make_unique<Download>(request, clock_, jitter_);
    }
    if (signature_->state() == Download::State::failed) {
        state_ = State::failed;
        reason_ = "its signature: " + signature_->reason();
        unlink(packagePath_.c_str());
        return;
    }
    if (signature_->state() == Download::State::done) state_ = State::fetched;
}

int PackageFetch::percent() const {
    return static_cast<int>(package_->received() * 100 / wanted_.size);
}

std::string PackageFetch::reason() const {
    if (state_ == State::failed) return reason_;
    if (signature_) return signature_->reason().empty() ? "" : "its signature: " + signature_->reason();
    return package_->reason().empty() ? "" : "the package: " + package_->reason();
}

std::string fileSha256(std::string const& path) {
    if (sodium_init() < 0) return {};
    int const fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return {};
    crypto_hash_sha256_state state;
    crypto_hash_sha256_init(&state);
    unsigned char chunk[65536];
    ssize_t got = 0;
    while ((got = read(fd, chunk, sizeof chunk)) > 0)
        crypto_hash_sha256_update(&state, chunk, static_cast<unsigned long long>(got));
    close(fd);
    if (got < 0) return {};
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256_final(&state, digest);
    char text[crypto_hash_sha256_BYTES * 2 + 1];
    sodium_bin2hex(text, sizeof text, digest, sizeof digest);
    return text;
}

}  // namespace nxahost
