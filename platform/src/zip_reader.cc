// zipper::unZipWithDirs: check the destination, every entry and the sizes they
// declare, extract into a hidden scratch folder inside the destination, then
// move the result into place.
#include <sys/stat.h>
#include <unistd.h>
#include <vlplatform/fs.h>
#include <vlplatform/zipper.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace {

using detail::Failure;

// The destination directory, made with its missing parents. Unless kept, the
// directories made here are removed again (if still empty) when it goes, so a
// failed extraction leaves no trace.
class Destination {
public:
    explicit Destination(std::string const& path);
    ~Destination();
    Destination(Destination const&) = delete;
    Destination& operator=(Destination const&) = delete;

    void keep() { made_.clear(); }

private:
    void makeLevel(std::string const& path);

    std::vector<std::string> made_;  // outermost first
};

Destination::Destination(std::string const& path) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        makeLevel(path.substr(0, slash));
    }
    makeLevel(path);
}

Destination::~Destination() {
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) ::rmdir(it->c_str());
}

void Destination::makeLevel(std::string const& path) {
    if (path.empty() || path.back() == '/') return;
    if (::mkdir(path.c_str(), 0777) == 0) {
        made_.push_back(path);
        return;
    }
    int const err = errno;
    struct stat st;
    if (err == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return;
    errno = err == EEXIST ? ENOTDIR : err;
    throw detail::systemFailure("cannot create directory " + path);
}

// The hidden folder inside the destination into which the archive is
// extracted first; removed with what is left in it in every case.
class Scratch {
public:
    explicit Scratch(std::string const& dest) {
        std::string pattern = dest + "/" + detail::kScratchPrefix + "XXXXXX";
        if (!::mkdtemp(&pattern[0])) throw detail::systemFailure("cannot create a scratch folder in " + dest);
        path_ = pattern;
    }
    ~Scratch() { rmDir(path_, true); }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;

    std::string const& path() const { return path_; }

private:
    std::string path_;
};

detail::Archive openArchive(std::string const& archive, std::string const& password) {
    int error = 0;
    errno = 0;
    detail::Archive za(zip_open(archive.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error));
    if (!za) {
        int const saved = errno;
        throw detail::openFailure("cannot open " + archive, error, saved);
    }
    if (!password.empty() && zip_set_default_password(za.get(), password.c_str()) != 0) {
        throw detail::zipFailure("cannot set the password", zip_get_error(za.get()));
    }
    return za;
}

unsigned long unzip(std::string const& archive, std::string const& dest, std::string const& password) {
    detail::checkDestination(dest);
    detail::Archive za = openArchive(archive, password);
    std::vector<detail::PlannedEntry> const entries = detail::planEntries(za.get());
    detail::checkLimits(entries, unpackBudget(dest));
    Destination destination(dest);
    if (entries.empty()) {
        // Nothing to extract, but the destination exists afterwards like after
        // any successful extraction, so callers can always read it.
        destination.keep();
        return 0;
    }
    {
        Scratch scratch(dest);
        for (detail::PlannedEntry const& entry : entries)
            detail::extractEntry(za.get(), entry, scratch.path());
        detail::moveIntoPlace(scratch.path(), dest);
    }
    destination.keep();
    return entries.size();
}

}  // namespace

int unZipWithDirs(std::string const& archive, std::string const& dest, std::string const& password) {
    return detail::runTraced("unZipWithDirs", archive + " -> " + dest,
                             [&] { return unzip(archive, dest, password); });
}

}  // namespace zipper
