// Private support of the zip helpers: owning handles for libzip objects and
// directory streams, the failure type that carries an error number and a
// reason to the public entry points, and their one trace line.
#pragma once

#include <dirent.h>
#include <zip.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zipper {
namespace detail {

// Closes an archive without writing it; a successful write releases the
// handle after zip_close() instead.
struct ArchiveDiscard {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using Archive = std::unique_ptr<zip_t, ArchiveDiscard>;

struct EntryClose {
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};
using EntryFile = std::unique_ptr<zip_file_t, EntryClose>;

// Frees a data source that no archive has taken over yet.
struct SourceFree {
    void operator()(zip_source_t* source) const { zip_source_free(source); }
};
using Source = std::unique_ptr<zip_source_t, SourceFree>;

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirClose>;

// Why a zip helper gives up: the errno it returns with and the reason its
// trace line names.
struct Failure {
    int err;
    std::string reason;
};

// A Failure for the failed system call just made: errno and "<what>: <system text>".
Failure systemFailure(std::string const& what);

// A Failure for a libzip error: the system's number when libzip reports one,
// EIO for damaged data (CRC or decompression errors), EINVAL otherwise.
Failure zipFailure(std::string const& what, zip_error_t* error);

// A Failure for zip_open(), which reports only a libzip error code: for the
// codes of failed system calls the errno saved right after it is used.
Failure openFailure(std::string const& what, int zipError, int savedErrno);

// `name` in double quotes, with control bytes written as \xNN so that a trace
// line stays one line.
std::string quoted(std::string const& name);

// The names in directory `path` other than "." and "..", sorted.
std::vector<std::string> listDirectory(std::string const& path);

// Runs `body`, which returns the number of entries handled or throws Failure.
// Writes the trace line "<subject>: <n> entries" or "<subject>: failed:
// <reason>" for `function` and returns 0, or -1 with errno set.
int runTraced(char const* function, std::string const& subject, std::function<unsigned long()> const& body);

}  // namespace detail
}  // namespace zipper
