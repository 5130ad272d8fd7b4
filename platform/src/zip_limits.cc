// What an archive may unpack to: the unpack budget of zipper::unZipWithDirs
// and the compression ratio an entry may declare. Both are checked on the
// sizes the central directory declares, before anything is written; extraction
// then reads no entry past its declared size (see extractEntry), so what is
// written stays within the total checked here.
#include <sys/statvfs.h>
#include <vlplatform/zipper.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace {

constexpr unsigned long long kDefaultBudget = 256ULL << 20;

std::atomic<unsigned long long> budgetSet{0};

// The directory holding `path`: its last component removed, "." for a relative
// path of one component, "/" for the root.
std::string parentOf(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    std::size_t const slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// Half the space available on the file system holding `path`, or its nearest
// existing parent; ULLONG_MAX when none can be examined.
unsigned long long halfAvailableSpace(std::string const& path) {
    for (std::string at = path;; at = parentOf(at)) {
        struct statvfs fs;
        if (::statvfs(at.c_str(), &fs) == 0) {
            return static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize / 2;
        }
        if (at == "/" || at == ".") return ULLONG_MAX;
    }
}

// Whether `size` is more than kMaxRatio times `compressed`, without overflow
// (`size` is above kRatioFloor, so not 0).
bool overRatio(zip_uint64_t size, zip_uint64_t compressed) {
    return compressed <= (size - 1) / detail::kMaxRatio;
}

void checkRatio(detail::PlannedEntry const& entry) {
    if (entry.size <= detail::kRatioFloor || !overRatio(entry.size, entry.compressedSize)) return;
    throw detail::Failure{EINVAL, "refused entry " + detail::quoted(entry.name) + ": " +
                                      std::to_string(entry.size) + " bytes from " +
                                      std::to_string(entry.compressedSize) + ", more than " +
                                      std::to_string(detail::kMaxRatio) + " times its compressed size"};
}

// The sum of the entries' declared sizes, ULLONG_MAX when it does not fit.
unsigned long long declaredTotal(std::vector<detail::PlannedEntry> const& entries) {
    unsigned long long total = 0;
    for (detail::PlannedEntry const& entry : entries) {
        total = entry.size > ULLONG_MAX - total ? ULLONG_MAX : total + entry.size;
    }
    return total;
}

}  // namespace

void setUnpackBudget(unsigned long long bytes) {
    budgetSet.store(bytes);
}

unsigned long long unpackBudget(std::string const& dest) {
    unsigned long long const set = budgetSet.load();
    unsigned long long const budget = set != 0 ? set : kDefaultBudget;
    return std::min(budget, halfAvailableSpace(dest));
}

namespace detail {

void checkLimits(std::vector<PlannedEntry> const& entries, unsigned long long budget) {
    for (PlannedEntry const& entry : entries) checkRatio(entry);
    unsigned long long const total = declaredTotal(entries);
    if (total <= budget) return;
    throw Failure{EFBIG, "refused archive: its entries declare " + std::to_string(total) +
                             " bytes, over the unpack budget of " + std::to_string(budget)};
}

}  // namespace detail
}  // namespace zipper
