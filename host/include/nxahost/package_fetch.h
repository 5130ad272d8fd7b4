// A desired package and its signature brought onto the device.
#pragma once

#include <vlplatform/fd_set.h>

#include <memory>
#include <string>

#include "clock.h"
#include "desired_package.h"
#include "download.h"

namespace nxahost {

// Downloads a desired package into `folder` as <sha256>.zip (so that what a
// host that stopped half-way left of it is resumed by the next one), then its
// signature beside it as <sha256>.zip.minisig (at most 64 KiB). Files in
// `folder` of any other package are removed when it starts, so the folder
// holds one package at most. Driven like Download: addFds, then serve on
// what the wait found ready. Fetched once both files are there and the
// package has its declared size and SHA-256; failed with the reason of the
// download that failed, both files then removed.
class PackageFetch {
public:
    enum class State { fetching, fetched, failed };

    // Starts at once. `caFile` as DownloadRequest's. Throws
    // std::runtime_error when `folder` cannot be made or written.
    PackageFetch(DesiredPackage wanted, std::string const& folder, std::string caFile, Clock const& clock,
                 Jitter& jitter);
    ~PackageFetch();

    int addFds(FdSet& rd, FdSet& wr, int timeoutMs) const;
    void serve(FdSet const& rd, FdSet const& wr);

    State state() const { return state_; }
    DesiredPackage const& wanted() const { return wanted_; }
    // Whole percent of the package downloaded (the signature not counted).
    int percent() const;
    // Why it failed; while fetching, why the last attempt did not finish
    // (empty when none failed).
    std::string reason() const;
    std::string const& packagePath() const { return packagePath_; }
    std::string signaturePath() const { return packagePath_ + ".minisig"; }

private:
    void nextStep();

    DesiredPackage wanted_;
    std::string caFile_;
    Clock const& clock_;
    Jitter& jitter_;
    std::string packagePath_;
    std::unique_ptr<Download> package_;
    std::unique_ptr<Download> signature_;
    State state_ = State::fetching;
    std::string reason_;
};

// The SHA-256 of the file at `path`, in lowercase hex; empty when it cannot
// be read.
std::string fileSha256(std::string const& path);

}  // namespace nxahost
