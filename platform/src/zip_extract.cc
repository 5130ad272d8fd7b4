// Writing checked entries below a private scratch root.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "zip_support.h"
#include "zip_unpack.h"

namespace zipper {
namespace detail {
namespace {

// An open output file, closed (with the close checked) when the entry is done.
class OutputFile {
public:
    explicit OutputFile(std::string path) : path_(std::move(path)) {
        // O_NOFOLLOW: the scratch root holds nothing but what this process made.
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd_ < 0) throw systemFailure("cannot create " + path_);
    }
    ~OutputFile() {
        if (fd_ >= 0) ::close(fd_);
    }
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    void write(char const* data, std::size_t size);
    void finish(PlannedEntry const& entry);

private:
    std::string path_;
    int fd_;
};

void OutputFile::write(char const* data, std::size_t size) {
    while (size > 0) {
        ssize_t const n = ::write(fd_, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw systemFailure("cannot write " + path_);
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// Gives the file the archive's mode (set-id bits dropped: packages come from
// outside) and time, and closes it.
void OutputFile::finish(PlannedEntry const& entry) {
    if (entry.hasMode && ::fchmod(fd_, entry.mode & 0777) != 0) throw systemFailure("cannot chmod " + path_);
    if (entry.hasMtime) {
        struct timespec const times[2] = {{0, UTIME_NOW}, {entry.mtime, 0}};
        if (::futimens(fd_, times) != 0) throw systemFailure("cannot set the time of " + path_);
    }
    int const fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) throw systemFailure("cannot write " + path_);
}

// Makes directory `path` unless it is one already.
void makeDirectory(std::string const& path) {
    if (::mkdir(path.c_str(), 0777) == 0) return;
    int const err = errno;
    struct stat st;
    if (err == EEXIST && ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return;
    errno = err == EEXIST ? ENOTDIR : err;
    throw systemFailure("cannot create directory " + path);
}

// Makes the directories of `relative` below `root` up to, not including, its
// last component.
void makeParents(std::string const& root, std::string const& relative) {
    for (std::size_t slash = relative.find('/'); slash != std::string::npos;
         slash = relative.find('/', slash + 1)) {
        makeDirectory(root + "/" + relative.substr(0, slash));
    }
}

// A directory entry keeps its mode with the owner's rwx added, so that the
// installer can always fill, empty and replace what it extracted.
void extractDirectory(PlannedEntry const& entry, std::string const& path) {
    makeDirectory(path);
    if (entry.hasMode && ::chmod(path.c_str(), (entry.mode & 0777) | 0700) != 0) {
        throw systemFailure("cannot chmod " + path);
    }
}

// Copies the entry's data: at most its declared size, in chunks, then one more
// read that must report the end (libzip checks the CRC there).
void copyData(zip_t* archive, PlannedEntry const& entry, OutputFile& out) {
    EntryFile file(zip_fopen_index(archive, entry.index, 0));
    if (!file) throw zipFailure("cannot open entry " + quoted(entry.name), zip_get_error(archive));
    char buffer[65536];
    zip_uint64_t remaining = entry.size;
    while (remaining > 0) {
        zip_uint64_t const want = std::min<zip_uint64_t>(remaining, sizeof buffer);
        zip_int64_t const n = zip_fread(file.get(), buffer, want);
        if (n < 0) throw zipFailure("corrupt entry " + quoted(entry.name), zip_file_get_error(file.get()));
        if (n == 0) throw Failure{EIO, "entry " + quoted(entry.name) + " is shorter than declared"};
        out.write(buffer, static_cast<std::size_t>(n));
        remaining -= static_cast<zip_uint64_t>(n);
    }
    zip_int64_t const end = zip_fread(file.get(), buffer, 1);
    if (end < 0) throw zipFailure("corrupt entry " + quoted(entry.name), zip_file_get_error(file.get()));
    if (end > 0) throw Failure{EIO, "entry " + quoted(entry.name) + " is longer than declared"};
}

}  // namespace

void extractEntry(zip_t* archive, PlannedEntry const& entry, std::string const& root) {
    makeParents(root, entry.path);
    std::string const path = root + "/" + entry.path;
    if (entry.directory) {
        extractDirectory(entry, path);
        return;
    }
    OutputFile out(path);
    copyData(archive, entry, out);
    out.finish(entry);
}

}  // namespace detail
}  // namespace zipper
