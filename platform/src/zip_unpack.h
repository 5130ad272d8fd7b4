// Private steps of zipper::unZipWithDirs: checking the destination and every
// entry before anything is written, extracting into a scratch folder, and
// moving the result into place.
#pragma once

#include <sys/types.h>
#include <zip.h>

#include <ctime>
#include <string>
#include <vector>

namespace zipper {
namespace detail {

// Prefix of the hidden scratch folder made inside the destination; entries
// whose first component starts with it are refused.
constexpr char kScratchPrefix[] = ".nxa-unzip-";

// The compression ratio (declared size over compressed size) an entry may not
// exceed, and the declared size up to which an entry is never refused for its
// ratio (tiny entries pack to a few bytes whatever their content).
constexpr zip_uint64_t kMaxRatio = 2000;
constexpr zip_uint64_t kRatioFloor = 1 << 20;

// One archive entry, checked, as it will be extracted.
struct PlannedEntry {
    zip_uint64_t index;
    std::string name;  // as stored, for messages
    std::string path;  // relative path below the destination, components joined by '/'
    bool directory;
    bool hasMode;                 // the archive gives Unix permission bits
    mode_t mode;                  // those bits (07777 mask), when hasMode
    zip_uint64_t size;            // the declared uncompressed size
    zip_uint64_t compressedSize;  // the declared compressed size
    bool hasMtime;
    time_t mtime;
};

// Throws Failure (EINVAL) when `dest` names no folder of its own: when its last
// path component is empty (a trailing slash, an empty path), "." or "..".
void checkDestination(std::string const& dest);

// Checks every entry of `archive` and returns them in archive order. Throws
// Failure (EINVAL) for the first entry whose name is empty, absolute, holds a
// backslash or a ".." component, starts with kScratchPrefix, or that is a
// symbolic link; nothing has been written then.
std::vector<PlannedEntry> planEntries(zip_t* archive);

// Throws Failure for entries that declare more than an archive may unpack to:
// EINVAL for the first entry of more than kRatioFloor bytes that declares more
// than kMaxRatio times its compressed size, then EFBIG when the declared sizes
// add up to more than `budget` bytes.
void checkLimits(std::vector<PlannedEntry> const& entries, unsigned long long budget);

// Writes `entry` below `root` (a directory this process has just made and
// nobody else writes to), creating the directories it needs. Reads at most the
// declared size and then checks that the entry ends there with a correct CRC.
// Throws Failure.
void extractEntry(zip_t* archive, PlannedEntry const& entry, std::string const& root);

// Moves everything in directory `from` into directory `to`: a name that is not
// in `to` is renamed there; two directories are merged; anything else in `to`
// (a file, a symbolic link, a directory where the archive has a file) is
// replaced. Never follows a symbolic link found in `to`. Throws Failure.
void moveIntoPlace(std::string const& from, std::string const& to);

}  // namespace detail
}  // namespace zipper
